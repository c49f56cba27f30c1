// Encodes events made from any decodable command as one line, and checks that it reads back to
// the same values.
#include "core/JSONLineWriter.h"

#include <nlohmann/json.hpp>

#include "fuzz/FuzzInput.h"
#include "tests/unit/core/DecodedLine.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace palaver;
  const DecodedLine decoded(text(data, size));
  if (!decoded.accepted()) return 0;
  const auto& command = decoded.command();
  Event event{{"type", command.type}, {"nested", {{command.type, command.type}}}};
  if (command.sessionId) event["sessionId"] = *command.sessionId;
  if (command.source) event["source"] = rawValue(*command.source);
  if (command.vocabulary) event["vocabulary"] = *command.vocabulary;
  if (command.sequence) event["sequence"] = *command.sequence;
  if (command.capturedAt) event["capturedAt"] = *command.capturedAt;
  if (command.sentAt) event["sentAt"] = *command.sentAt;
  if (command.suppressed) event["suppressed"] = *command.suppressed;

  const auto line = serializeEvent(event);  // every decoded value can be encoded
  for (const char c : line) require(static_cast<unsigned char>(c) >= 0x20, "a raw control character");
  const auto read = Event::parse(line, nullptr, false);
  require(!read.is_discarded(), "not JSON");
  require(read == event, "different values");
  return 0;
}
