#include "cli/CodeSignature.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

#include "platform/posix/PipedProcess.h"

namespace palaver::cli {

namespace {

// The program's property list is embedded in it as XML.
constexpr std::string_view usageKey = "<key>NSSpeechRecognitionUsageDescription</key>";

struct Output {
  bool isSuccess = false;
  std::string text;    // of standard output
  std::string errors;  // of standard error, where codesign describes programs
};

Output outputOf(const std::vector<std::string>& command) {
  PipedProcess process(command);
  process.closeInput();
  Output output;
  std::string bytes;
  while (process.output() >= 0 || process.diagnostics() >= 0) {
    std::array<pollfd, 2> waits{{{process.output(), POLLIN, 0}, {process.diagnostics(), POLLIN, 0}}};
    ::poll(waits.data(), waits.size(), -1);
    while (process.readOutput(bytes) == ReadOutcome::data) output.text += bytes;
    while (process.readDiagnostics(bytes) == ReadOutcome::data) output.errors += bytes;
  }
  for (;;) {
    if (const auto status = process.exitStatus()) {
      output.isSuccess = status->isSuccess();
      return output;
    }
    ::poll(nullptr, 0, 5);
  }
}

// Returns what follows "name=" at the start of a line.
std::string valueOf(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(name + "=")) return line.substr(name.size() + 1);
  return "";
}

// The keys of a property list.
std::vector<std::string> keysOf(const std::string& plist) {
  constexpr std::string_view open = "<key>";
  std::vector<std::string> keys;
  for (auto at = plist.find(open); at != std::string::npos; at = plist.find(open, at)) {
    at += open.size();
    const auto end = plist.find("</key>", at);
    if (end == std::string::npos) break;
    keys.push_back(plist.substr(at, end - at));
  }
  return keys;
}

bool contains(const std::string& path, std::string_view text) {
  std::ifstream file(path, std::ios::binary);
  std::string window;
  std::array<char, 1 << 16> bytes{};
  while (file.read(bytes.data(), bytes.size()), file.gcount() > 0) {
    window.append(bytes.data(), static_cast<std::size_t>(file.gcount()));
    if (window.find(text) != std::string::npos) return true;
    if (window.size() > text.size()) window.erase(0, window.size() - text.size());
  }
  return false;
}

std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace

std::optional<CodeSignature> inspectSignature(const std::string& program, const std::string& codesign) {
  if (::access(codesign.c_str(), X_OK) != 0) return std::nullopt;
  CodeSignature signature;
  const auto verified = outputOf({codesign, "--verify", "--strict", program});
  signature.isValid = verified.isSuccess;
  if (!verified.isSuccess) signature.problem = firstLine(verified.errors);
  const auto description = outputOf({codesign, "--display", "--verbose=2", program}).errors;
  signature.identifier = valueOf(description, "Identifier");
  signature.team = valueOf(description, "TeamIdentifier");
  if (signature.team == "not set") signature.team.clear();
  std::istringstream lines(description);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with("CodeDirectory ") && line.find("runtime") != std::string::npos)
      signature.isHardened = true;
  signature.entitlements =
      keysOf(outputOf({codesign, "--display", "--entitlements", "-", "--xml", program}).text);
  signature.hasUsageText = contains(program, usageKey);
  return signature;
}

}  // namespace palaver::cli
