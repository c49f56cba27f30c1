// The "--health" mode: one "helper.status" event that says whether recognition can work here.
#pragma once

namespace palaver {

class DictationProbe;
class JSONLineWriter;
struct Platform;

// Writes the report of the engine that this system would use. Before macOS 26 it returns, after perhaps
// waiting for the Dictation probe (2.5 s); from macOS 26 on it ends the process: status 0, or 1 when the
// engine cannot serve Japanese. Main thread.
void emitHealth(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation);

}  // namespace palaver
