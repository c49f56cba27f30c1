#include "core/JSONLineWriter.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace palaver {

namespace {

constexpr double endStallLimit = 2000;  // ms

void append(std::string& out, const Event& value) {
  const auto appendMembers = [&out](char open, char close, const Event& members, auto appendMember) {
    out += open;
    bool first = true;
    for (auto member = members.begin(); member != members.end(); ++member) {
      if (!std::exchange(first, false)) out += ',';
      appendMember(member);
    }
    out += close;
  };
  switch (value.type()) {
    case Event::value_t::object:
      appendMembers('{', '}', value, [&out](const auto& member) {
        append(out, Event(member.key()));
        out += ':';
        append(out, member.value());
      });
      return;
    case Event::value_t::array:
      appendMembers('[', ']', value, [&out](const auto& member) { append(out, *member); });
      return;
    case Event::value_t::number_float: {
      const double number = value.get<double>();
      if (!std::isfinite(number)) throw std::domain_error("a number is not finite");
      char digits[32];
      out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
      return;
    }
    default:
      out += value.dump();
  }
}

}  // namespace

std::string serializeEvent(const Event& event) {
  std::string line;
  line.reserve(512);
  append(line, event);
  return line;
}

void JSONLineWriter::write(const Event& event) {
  std::string line;
  try {
    line = serializeEvent(event);
  } catch (const std::exception& error) {
    standardError_.write(std::string("Failed to encode helper event: ") + error.what() + "\n");
    return;
  }
  const std::lock_guard guard(lock_);
  writeLine(line);
}

void JSONLineWriter::error(std::string_view message, std::optional<std::string_view> sessionId,
                           std::optional<AudioSource> source) {
  Event event = errorEvent(message);
  if (sessionId) event["sessionId"] = *sessionId;
  if (source) event["source"] = rawValue(*source);
  write(event);
}

bool JSONLineWriter::tryError(std::string_view message) {
  std::string line;
  try {
    line = serializeEvent(errorEvent(message));
  } catch (const std::exception&) {
    return false;  // error() reports it
  }
  const std::unique_lock guard(lock_, std::try_to_lock);
  if (!guard.owns_lock() || !standardOutput_.isWritable()) return false;
  writeLine(line);
  return true;
}

void JSONLineWriter::limitStalls() {
  standardOutput_.limitStalls(endStallLimit);
  standardError_.limitStalls(endStallLimit);
}

Event JSONLineWriter::errorEvent(std::string_view message) const {
  return {{"type", "helper.error"}, {"message", message}, {"at", clock_.nowMilliseconds()}};
}

// Called with the lock held.
void JSONLineWriter::writeLine(std::string_view line) {
  standardOutput_.write(line);
  standardOutput_.write("\n");
}

std::string_view authorizationLabel(AuthorizationStatus status) {
  switch (status) {
    case AuthorizationStatus::notDetermined:
      return "not-determined";
    case AuthorizationStatus::denied:
      return "denied";
    case AuthorizationStatus::restricted:
      return "restricted";
    case AuthorizationStatus::authorized:
      return "authorized";
  }
  return "unknown";
}

}  // namespace palaver
