#include "cli/TranscriptDisplay.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <sstream>
#include <utility>

#include "cli/EventText.h"
#include "cli/TextLayout.h"
#include "core/AudioSource.h"

namespace palaver::cli {

namespace {

// Select Graphic Rendition of ECMA-48.
constexpr std::string_view bold = "1";
constexpr std::string_view dim = "2";
constexpr std::string_view red = "1;31";
constexpr std::string_view green = "32";
constexpr std::string_view yellow = "33";

constexpr std::size_t labelColumns = 8;

std::string text(const nlohmann::json& event, const char* key) {
  return printable(textOf(event, key));
}

std::string padded(std::string_view label) {
  std::string result(label);
  result.resize(std::max(labelColumns, result.size() + 1), ' ');
  return result;
}

std::size_t countWords(const std::string& text) {
  std::istringstream words(text);
  std::size_t count = 0;
  for (std::string word; words >> word;) ++count;
  return count;
}

std::string counted(std::size_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

}  // namespace

TranscriptDisplay::TranscriptDisplay(Style style, Output lines, Width width, Output live, Width liveWidth)
    : style_(style),
      lines_(std::move(lines)),
      width_(std::move(width)),
      live_(std::move(live)),
      liveWidth_(std::move(liveWidth)) {}

void TranscriptDisplay::onEvent(std::string_view /*line*/, const nlohmann::json& event) {
  const auto type = text(event, "type");
  if (type == "helper.status") {
    showStatus(event);
  } else if (type == "session.ready") {
    showReady(event);
  } else if (type == "transcript.partial" || type == "transcript.final") {
    showTranscript(event, type == "transcript.final");
  } else if (type == "helper.error") {
    const auto source = text(event, "source");
    showError((source.empty() ? "" : source + ": ") + text(event, "message"));
  }
}

void TranscriptDisplay::showStatus(const nlohmann::json& event) {
  const auto available = event.find("available");
  const bool ready = available != event.end() && *available == true;
  const auto model = text(event, "modelStatus");
  printWrapped("helper",
               text(event, "status") + " (" + text(event, "implementation") +
                   (model.empty() ? "" : ", model " + model) + ")",
               ready ? green : yellow);
  printWrapped("", text(event, "message"), dim);
}

void TranscriptDisplay::showReady(const nlohmann::json& event) {
  const auto available = event.find("available");
  const bool ready = available != event.end() && *available == true;
  const auto source = text(event, "source");
  printWrapped("session",
               text(event, "locale") + (source.empty() ? "" : ", " + source) +
                   (ready ? " is ready" : " is not available"),
               ready ? green : yellow);
}

void TranscriptDisplay::showTranscript(const nlohmann::json& event, bool isFinal) {
  const auto source = audioSource(text(event, "source"));
  if (!source) return;
  auto& shown = sources_[static_cast<std::size_t>(*source)];
  auto words = text(event, "text");
  if (!isFinal) {
    if (words == shown.partial) return;
    shown.partial = std::move(words);
    if (style_.partials) {
      print({padded(rawValue(*source)) + "... " + shown.partial});
    } else {
      draw();
    }
    return;
  }
  shown.partial.clear();
  ++shown.finals;
  shown.words += countWords(words);
  const auto latency = numberOf(event, "latencyMs").value_or(0);
  shown.latencySum += latency;
  const auto endpointing = event.find("endpointing");
  const auto reason =
      endpointing != event.end() && endpointing->is_object() ? text(*endpointing, "reason") : std::string();
  std::string details = relative(event, "startedAt") + " - " + relative(event, "speechEndedAt");
  if (style_.latency) details += ", latency " + std::to_string(std::lround(latency)) + " ms";
  if (!reason.empty()) details += ", ended by " + reason;
  printWrapped(rawValue(*source), words, bold);
  printWrapped("", details, dim);
}

void TranscriptDisplay::showError(std::string_view message) {
  ++problems_;
  printWrapped("error", printable(message), red);
}

void TranscriptDisplay::onDiagnostic(std::string_view line) {
  if (style_.diagnostics) printWrapped("log", printable(line), dim);
}

void TranscriptDisplay::onProblem(std::string_view message) {
  showError(message);
}

void TranscriptDisplay::onStreamStart(double startedAt) {
  startedAt_ = startedAt;
  streaming_ = true;
}

void TranscriptDisplay::onProgress(double position, double total) {
  position_ = position;
  total_ = total;
  draw();
}

void TranscriptDisplay::finish(bool ok) {
  streaming_ = false;
  for (auto& source : sources_) source.partial.clear();
  draw();
  for (const auto source : allAudioSources) {
    const auto& shown = sources_[static_cast<std::size_t>(source)];
    if (shown.finals == 0) continue;
    auto summary = counted(shown.finals, "final") + ", " + counted(shown.words, "word");
    if (style_.latency)
      summary += ", mean latency " +
                 std::to_string(std::lround(shown.latencySum / static_cast<double>(shown.finals))) + " ms";
    printWrapped(rawValue(source), summary, "");
  }
  if (ok) {
    const bool silent =
        std::all_of(sources_.begin(), sources_.end(), [](const Source& each) { return each.finals == 0; });
    printWrapped("done", silent ? "completed without speech" : "completed", green);
  } else {
    printWrapped("failed", counted(std::max<std::size_t>(problems_, 1), "error"), red);
  }
}

std::string TranscriptDisplay::relative(const nlohmann::json& event, const char* key) const {
  const auto time = numberOf(event, key);
  return time ? position(*time - startedAt_) : "?";
}

std::string TranscriptDisplay::styled(std::string_view text, std::string_view code) const {
  if (!style_.colours || code.empty() || text.empty()) return std::string(text);
  return "\x1b[" + std::string(code) + "m" + std::string(text) + "\x1b[0m";
}

void TranscriptDisplay::printWrapped(std::string_view label, std::string_view text, std::string_view code) {
  if (text.empty()) return;
  std::vector<std::string> lines;
  for (const auto& part : wrap(text, std::max<std::size_t>(bounded(width_()) - labelColumns, 20)))
    lines.push_back((lines.empty() ? padded(label) : padded("")) + styled(part, code));
  print(lines);
}

void TranscriptDisplay::print(const std::vector<std::string>& lines) {
  if (const auto erased = eraseLive(); !erased.empty()) live_(erased);
  std::string bytes;
  for (const auto& line : lines) bytes += line + "\n";
  lines_(bytes);
  draw();
}

void TranscriptDisplay::draw() {
  auto bytes = eraseLive();
  bytes += liveLines();
  if (!bytes.empty()) live_(bytes);
}

// Moves to the first live line and erases everything below.
std::string TranscriptDisplay::eraseLive() {
  const auto count = std::exchange(liveCount_, 0);
  if (count == 0) return {};
  return (count > 1 ? "\x1b[" + std::to_string(count - 1) + "A" : std::string()) + "\r\x1b[J";
}

// Returns the live lines. The cursor ends after the last one. Each is shorter than the terminal's width,
// because a wrapped line could not be erased.
std::string TranscriptDisplay::liveLines() {
  if (!live_ || !streaming_) return {};
  const auto columns = bounded(liveWidth_()) - 1;
  std::vector<std::string> lines;
  for (const auto source : allAudioSources) {
    const auto& partial = sources_[static_cast<std::size_t>(source)].partial;
    if (partial.empty()) continue;
    lines.push_back(padded(rawValue(source)) +
                    lastColumns(partial, columns - std::min(columns, labelColumns)));
  }
  if (total_ > 0) {
    const auto times = position_ > total_ ? " awaiting the last words"
                                          : " " + position(position_) + " of " + position(total_);
    const auto bar =
        std::max<std::size_t>(columns, labelColumns + times.size() + 3) - labelColumns - times.size();
    lines.push_back(lastColumns(
        padded("") + progressBar(position_ / total_, std::min<std::size_t>(bar, 40)) + times, columns));
  } else {
    lines.push_back(lastColumns(padded("") + position(position_) + ", until the input ends", columns));
  }
  liveCount_ = lines.size();
  std::string bytes;
  for (const auto& line : lines) bytes += (bytes.empty() ? "" : "\n") + line;
  return bytes;
}

std::size_t TranscriptDisplay::bounded(std::size_t columns) {
  return std::clamp<std::size_t>(columns, 24, 200);
}

}  // namespace palaver::cli
