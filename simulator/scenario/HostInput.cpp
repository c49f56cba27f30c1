#include "simulator/scenario/HostInput.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <utility>

namespace palaver {

namespace {

// Reads the known keys of a command. Fails if one has a wrong type or value.
class CommandReader {
 public:
  explicit CommandReader(const JSON& object) : object_(object) {}

  template <typename Value, typename IsValid>
  void read(const char* key, std::optional<Value>& value, IsValid isValid) {
    const auto found = object_.find(key);
    if (found == object_.end() || found->is_null()) return;
    if (isValid(*found)) {
      value = found->template get<Value>();
    } else {
      failed_ = true;
    }
  }
  bool failed() const { return failed_; }

 private:
  const JSON& object_;
  bool failed_ = false;
};

bool isWholeNumber(const JSON& value) {
  constexpr double limit = 0x1p63;
  if (value.is_number_unsigned()) return value.get<std::uint64_t>() < std::uint64_t{1} << 63;
  if (value.is_number_integer()) return true;
  if (!value.is_number()) return false;
  const auto number = value.get<double>();
  return number == std::trunc(number) && number >= -limit && number < limit;
}

bool areStrings(const JSON& value) {
  if (!value.is_array()) return false;
  for (const auto& item : value)
    if (!item.is_string()) return false;
  return true;
}

std::optional<HostCommand> decode(const std::string& line) {
  const JSON object = JSON::parse(line, nullptr, false);
  if (!object.is_object()) return std::nullopt;
  HostCommand command;
  CommandReader reader(object);
  const auto isString = [](const JSON& value) { return value.is_string(); };
  const auto isNumber = [](const JSON& value) { return value.is_number(); };
  const auto isBoolean = [](const JSON& value) { return value.is_boolean(); };
  std::optional<std::string> type;
  std::optional<JSON> sequence;
  reader.read("type", type, isString);
  reader.read("sessionId", command.sessionId, isString);
  reader.read("source", command.source,
              [](const JSON& value) { return value == "remote" || value == "self"; });
  reader.read("locale", command.locale, isString);
  reader.read("vocabulary", command.vocabulary, areStrings);
  reader.read("sequence", sequence, isWholeNumber);
  reader.read("capturedAt", command.capturedAt, isNumber);
  reader.read("pcmBase64", command.pcmBase64, isString);
  reader.read("suppressed", command.suppressed, isBoolean);
  reader.read("sentAt", command.sentAt, isNumber);
  if (reader.failed() || !type) return std::nullopt;
  command.type = *type;
  command.hasSequence = sequence.has_value();
  return command;
}

class LineReader {
 public:
  void receive(const std::string& bytes, double time) {
    for (const char byte : bytes) {
      if (byte == '\n') {
        endLine(time);
      } else {
        line_ += byte;
      }
    }
  }
  void end(double time) {
    if (input_.endsAt) return;
    if (!line_.empty()) endLine(time);
    if (!input_.endsAt) input_.endsAt = time;
  }
  HostInput take() { return std::move(input_); }

 private:
  void endLine(double time) {
    const auto line = std::exchange(line_, {});
    if (input_.endsAt || line.find_first_not_of(" \t\r") == std::string::npos) return;
    auto command = decode(line);
    if (!command) {
      input_.undecodable.push_back(time);
      return;
    }
    command->time = time;
    if (command->type == "shutdown") input_.endsAt = time;
    input_.commands.push_back(std::move(*command));
  }

  std::string line_;
  HostInput input_;
};

}  // namespace

bool HostCommand::isComplete() const {
  if (type == "session.start" || type == "session.stop") return sessionId.has_value();
  if (type == "audio") return sessionId && source && hasSequence && capturedAt && pcmBase64;
  if (type == "source.suppress") return sessionId && source && suppressed;
  return true;
}

HostInput readHostInput(const Scenario& scenario) {
  std::vector<const ScenarioAction*> actions;  // in the order of time, in which they are performed
  for (const auto& action : scenario.actions) actions.push_back(&action);
  std::ranges::stable_sort(actions, {}, &ScenarioAction::time);
  LineReader reader;
  for (const auto* const action : actions) {
    if (const auto* const sent = std::get_if<HostBytes>(&action->what)) {
      reader.receive(sent->bytes, action->time);
    } else if (std::holds_alternative<EndOfInput>(action->what)) {
      reader.end(action->time);
    }
  }
  return reader.take();
}

DecodedPayload decodePayload(const std::string& base64) {
  static const auto digits = [] {
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::array<int, 256> values;
    values.fill(-1);
    for (std::size_t i = 0; i < alphabet.size(); ++i)
      values[static_cast<unsigned char>(alphabet[i])] = static_cast<int>(i);
    return values;
  }();
  DecodedPayload invalid{{}, "payload-not-base64"};
  if (base64.size() % 4 != 0) return invalid;
  const auto padding = base64.size() - base64.find_last_not_of('=') - 1;
  if (base64.empty() || padding > 2) return base64.empty() ? DecodedPayload() : invalid;
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char character : std::string_view(base64).substr(0, base64.size() - padding)) {
    const int value = digits[static_cast<unsigned char>(character)];
    if (value < 0) return invalid;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> count & 0xFF);
  }
  if (bytes.size() % 2 != 0) return {{}, "payload-odd-length"};
  DecodedPayload payload;
  for (std::size_t i = 0; i < bytes.size(); i += 2)
    payload.samples.push_back(static_cast<std::int16_t>(static_cast<unsigned char>(bytes[i]) |
                                                        static_cast<unsigned char>(bytes[i + 1]) << 8));
  return payload;
}

}  // namespace palaver
