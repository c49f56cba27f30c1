// Implements the "--health" mode: reports in one "helper.status" event whether recognition can work here.
#pragma once

namespace palaver {

class DictationProbe;
class JSONLineWriter;
struct Platform;

// Writes the report of the engine that serves this system. Before macOS 26 it may block for the Dictation
// probe (2.5 s), then returns. From macOS 26 on it ends the process with status 0, or 1 when the engine
// cannot serve Japanese. Main thread.
void emitHealth(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation);

}  // namespace palaver
