// The "--health" mode: one "helper.status" event that says whether recognition can work here.
#pragma once

namespace palaver {

class DictationProbe;
class JSONLineWriter;
struct Platform;

// Writes the report of the engine that this system would use. Main thread; may wait for the Dictation probe
// (2.5 s).
void emitHealth(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation);

}  // namespace palaver
