#include "core/endProcess.h"

#include <new>
#include <string>

#include "core/JSONLineWriter.h"
#include "platform/Process.h"

namespace palaver {

void endProcess(Process& process, JSONLineWriter& writer, int status) {
  writer.limitStalls();
  const auto held = writer.holdLines();
  process.exit(status);
}

void failProcess(Process& process, JSONLineWriter& writer, const std::exception& failure) {
  writer.limitStalls();  // the report must not wait for a host that does not read
  const bool outOfMemory = dynamic_cast<const std::bad_alloc*>(&failure) != nullptr;
  try {
    writer.error(std::string("The helper has to end: ") + (outOfMemory ? "out of memory" : failure.what()));
  } catch (const std::bad_alloc&) {
    // Not even the report fits into memory.
  }
  endProcess(process, writer, 1);
}

}  // namespace palaver
