// Ends the process between two lines of output.
#pragma once

#include <exception>

namespace palaver {

class JSONLineWriter;
class Process;

// Any thread. Waits for the line that another thread is writing, as long as the host accepts it.
[[noreturn]] void endProcess(Process& process, JSONLineWriter& writer, int status);

// Ends the process with status 1 after a failure that leaves it unable to work: no memory, no thread. Reports
// it as one "helper.error" if a line can still be written. Any thread.
[[noreturn]] void failProcess(Process& process, JSONLineWriter& writer, const std::exception& failure);

}  // namespace palaver
