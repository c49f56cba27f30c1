#include "cli/MeetingReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "cli/ErrorDefinitions.h"
#include "cli/EventText.h"
#include "cli/LineSplitter.h"
#include "cli/PCM.h"

namespace palaver::cli {

namespace {

using nlohmann::json;

constexpr double toleratedJitter = 50;  // ms between chunks that is no gap
constexpr double framesPerMillisecond = 16;

Meeting::Chunk chunkOf(const json& command) {
  Meeting::Chunk chunk;
  chunk.capturedAt = numberOf(command, "capturedAt").value_or(0);
  const auto payload = command.find("pcmBase64");
  if (payload == command.end()) return chunk;
  if (payload->is_object()) {  // redacted
    chunk.milliseconds = numberOf(*payload, "frames").value_or(0) / framesPerMillisecond;
    chunk.loudness = numberOf(*payload, "rms").value_or(0);
    return chunk;
  }
  if (!payload->is_string()) return chunk;
  const auto samples = decodedPCM(payload->get<std::string>());
  if (!samples) return chunk;
  chunk.milliseconds = static_cast<double>(samples->size()) / framesPerMillisecond;
  chunk.loudness = loudnessOf(*samples);
  return chunk;
}

Meeting::Final finalOf(const json& event) {
  Meeting::Final final;
  final.startedAt = numberOf(event, "startedAt").value_or(0);
  final.speechEndedAt = numberOf(event, "speechEndedAt");
  final.latency = numberOf(event, "latencyMs");
  if (const auto endpointing = event.find("endpointing");
      endpointing != event.end() && endpointing->is_object()) {
    final.reason = textOf(*endpointing, "reason");
    if (final.reason == "silence") final.wait = numberOf(*endpointing, "minSilenceMs");
  }
  final.text = textOf(event, "text");
  if (const auto text = event.find("text"); text != event.end() && text->is_object())
    if (const auto characters = numberOf(*text, "characters"))
      final.characters = static_cast<std::size_t>(*characters);
  return final;
}

class Collector {
 public:
  explicit Collector(Meeting& meeting) : meeting_(meeting) {}

  void add(double at, Speaker from, std::string_view line) {
    const auto value = json::parse(line, nullptr, false);
    if (!value.is_object()) return;
    if (from == Speaker::host) {
      addCommand(at, value);
    } else {
      addEvent(value);
    }
  }

 private:
  void addCommand(double at, const json& command) {
    const auto type = textOf(command, "type");
    if (type == "ping") pingedAt_ = meeting_.startedAt + at;
    if (type != "audio") return;
    auto& source = meeting_.sources[textOf(command, "source")];
    const auto chunk = chunkOf(command);
    if (!source.chunks.empty()) {
      const auto& last = source.chunks.back();
      const double expected = last.capturedAt + last.milliseconds;
      if (std::abs(chunk.capturedAt - expected) > toleratedJitter)
        source.gaps.push_back({expected, chunk.capturedAt - expected});
    }
    source.chunks.push_back(chunk);
  }

  void addEvent(const json& event) {
    const auto type = textOf(event, "type");
    if (type == "helper.status" && meeting_.implementation.empty())
      meeting_.implementation = textOf(event, "implementation");
    if (type == "transcript.final")
      meeting_.sources[textOf(event, "source")].finals.push_back(finalOf(event));
    if (type == "pong" && pingedAt_ && !meeting_.clockOffset)
      if (const auto helperAt = numberOf(event, "helperAt")) meeting_.clockOffset = *helperAt - *pingedAt_;
    if (type == "helper.error") {
      const auto message = textOf(event, "message");
      auto code = textOf(event, "code");  // of a redacted recording
      if (code.empty()) code = errorCode(message);
      auto& error = meeting_.errors[code];
      if (error.count++ == 0) error.text = message;
    }
  }

  Meeting& meeting_;
  std::optional<double> pingedAt_;
};

std::string fixed(double number, int digits = 0) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, number);
  return text;
}

std::string inMilliseconds(const std::optional<double>& value) {
  return value ? fixed(*value) + " ms" : "–";
}

// "1:02.3", or with hours "01:02:03.456".
std::string clockText(double milliseconds) {
  const auto all = std::llround(std::max(milliseconds, 0.0));
  if (all >= 3'600'000) return captionTime(milliseconds, '.');
  char text[64];
  std::snprintf(text, sizeof text, "%lld:%02lld.%lld", all / 60'000, all / 1000 % 60, all % 1000 / 100);
  return text;
}

std::string shownText(const Meeting::Final& final) {
  if (final.characters) return "(" + std::to_string(*final.characters) + " characters)";
  return final.text;
}

double endOf(const Meeting::Final& final) {
  return final.speechEndedAt.value_or(final.startedAt);
}

// All finals with their source, in order of time.
std::vector<std::pair<std::string, const Meeting::Final*>> allFinals(const Meeting& meeting) {
  std::vector<std::pair<std::string, const Meeting::Final*>> finals;
  for (const auto& [name, source] : meeting.sources)
    for (const auto& final : source.finals) finals.emplace_back(name, &final);
  std::ranges::stable_sort(finals, {}, [](const auto& entry) { return entry.second->startedAt; });
  return finals;
}

// Draws loudness, threshold, utterances, ends and gaps of one source.
class Picture {
 public:
  Picture(const Meeting& meeting, const Meeting::Source& source) : meeting_(meeting), source_(source) {}

  std::string svg() const {
    std::string out = "<svg viewBox=\"0 0 1000 130\" role=\"img\" aria-label=\"loudness and utterances\">\n";
    for (const auto& final : source_.finals) {
      const double left = x(final.startedAt);
      out += "<rect class=\"utterance\" x=\"" + fixed(left, 2) + "\" y=\"0\" height=\"100\" width=\"" +
             fixed(std::max(x(endOf(final)) - left, 1.0), 2) + "\"><title>" +
             escapedForMarkup(shownText(final)) + "</title></rect>\n";
    }
    out += loudnessBars();
    out += "<line class=\"threshold\" x1=\"0\" x2=\"1000\" y1=\"" + fixed(y(voiceThreshold), 2) + "\" y2=\"" +
           fixed(y(voiceThreshold), 2) + "\"/>\n";
    for (const auto& final : source_.finals)
      if (final.latency) {
        const double at = x(endOf(final) + *final.latency);
        out += "<line class=\"end\" x1=\"" + fixed(at, 2) + "\" x2=\"" + fixed(at, 2) +
               "\" y1=\"0\" y2=\"100\"><title>final, " + escapedForMarkup(final.reason) + ", " +
               inMilliseconds(final.latency) + "</title></line>\n";
      }
    for (const auto& gap : source_.gaps)
      out += "<rect class=\"gap\" x=\"" + fixed(x(gap.from), 2) + "\" y=\"100\" height=\"10\" width=\"" +
             fixed(std::max(x(gap.from + std::abs(gap.milliseconds)) - x(gap.from), 2.0), 2) +
             "\"><title>gap of " + fixed(gap.milliseconds) + " ms</title></rect>\n";
    return out + axis() + "</svg>\n";
  }

 private:
  double x(double time) const {
    return (time - meeting_.startedAt) / std::max(meeting_.endedAt - meeting_.startedAt, 1.0) * 1000;
  }
  // 60 dB from the bottom to the top.
  static double y(double loudness) {
    const double decibels = 20 * std::log10(std::max(loudness, 0.001));
    return std::clamp(-decibels / 60 * 100, 0.0, 100.0);
  }

  // One path of the loudest chunk in each of 1000 columns.
  std::string loudnessBars() const {
    struct Column {
      double loudness = 0;
      double end = 0;
    };
    std::map<int, Column> columns;
    for (const auto& chunk : source_.chunks) {
      auto& column = columns[static_cast<int>(x(chunk.capturedAt))];
      column.loudness = std::max(column.loudness, chunk.loudness);
      column.end = std::max(column.end, x(chunk.capturedAt + chunk.milliseconds));
    }
    std::string path;
    for (const auto& [left, column] : columns)
      path += "M" + std::to_string(left) + " 100V" + fixed(y(column.loudness), 1) + "H" +
              fixed(column.end, 1) + "V100z";
    return "<path class=\"loudness\" d=\"" + path + "\"/>\n";
  }

  std::string axis() const {
    std::string out;
    for (int i = 0; i <= 10; ++i) {
      const double time = (meeting_.endedAt - meeting_.startedAt) * i / 10;
      out += "<text x=\"" + std::to_string(i * 100) + "\" y=\"125\" text-anchor=\"" +
             (i == 0    ? "start"
              : i == 10 ? "end"
                        : "middle") +
             "\">" + clockText(time) + "</text>\n";
    }
    return out;
  }

  const Meeting& meeting_;
  const Meeting::Source& source_;
};

constexpr const char* style = R"(
:root { color-scheme: light dark; --line: #8886; --voice: #3584e4; --speech: #33d17a55; --end: #e5a50a; --gap: #e01b24; }
body { font: 15px/1.5 system-ui, sans-serif; margin: 2em auto; max-width: 62em; padding: 0 1em; }
h1 { font-size: 1.5em; } h2 { font-size: 1.15em; margin-top: 2em; }
table { border-collapse: collapse; width: 100%; } th, td { text-align: left; padding: .25em .6em; border-bottom: 1px solid var(--line); vertical-align: top; }
td.number, th.number { text-align: right; font-variant-numeric: tabular-nums; } td.number { white-space: nowrap; }
svg { width: 100%; height: auto; overflow: visible; } svg text { font-size: 11px; fill: currentColor; }
.loudness { fill: var(--voice); } .utterance { fill: var(--speech); }
.threshold { stroke: currentColor; stroke-dasharray: 4 4; opacity: .6; } .end { stroke: var(--end); stroke-width: 2; } .gap { fill: var(--gap); }
.legend span { margin-right: 1.5em; } .legend i { display: inline-block; width: .8em; height: .8em; margin-right: .4em; }
)";

std::string latencyRow(const std::string& name, const Meeting::Source& source) {
  std::vector<double> whole, recognition;
  for (const auto& final : source.finals) {
    if (!final.latency) continue;
    whole.push_back(*final.latency);
    recognition.push_back(std::max(*final.latency - final.wait.value_or(0), 0.0));
  }
  std::string row = "<tr><td>" + escapedForMarkup(name) + "</td><td class=\"number\">" +
                    std::to_string(source.finals.size()) + "</td>";
  for (const auto& value : {percentile(whole, 0.5), percentile(whole, 0.95), percentile(recognition, 0.5),
                            percentile(recognition, 0.95)})
    row += "<td class=\"number\">" + inMilliseconds(value) + "</td>";
  return row + "<td class=\"number\">" + std::to_string(source.gaps.size()) + "</td></tr>\n";
}

}  // namespace

Meeting meetingOf(const RecordedConversation& conversation) {
  Meeting meeting;
  meeting.startedAt = conversation.startedAt;
  meeting.isRedacted = conversation.isRedacted;
  meeting.end = conversation.end;
  Collector collector(meeting);
  LineSplitter lines[2];  // of the host and the helper
  double last = 0;
  for (const auto& piece : conversation.pieces) {
    last = std::max(last, piece.at);
    if (piece.from == Speaker::diagnostics) continue;
    lines[piece.from == Speaker::host ? 0 : 1].append(
        piece.bytes, [&](std::string_view line) { collector.add(piece.at, piece.from, line); });
  }
  meeting.endedAt = meeting.startedAt + last;
  return meeting;
}

std::optional<double> percentile(std::vector<double> values, double share) {
  if (values.empty()) return std::nullopt;
  std::ranges::sort(values);
  const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(values.size())));
  return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

std::string htmlPage(const Meeting& meeting, const std::string& title) {
  std::string page =
      "<!doctype html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
      "'unsafe-inline'\">\n"
      "<meta name=\"viewport\" content=\"width=device-width\">\n<title>" +
      escapedForMarkup(title) + "</title>\n<style>" + style + "</style>\n<h1>" + escapedForMarkup(title) +
      "</h1>\n";
  page += "<p>" + clockText(meeting.endedAt - meeting.startedAt) + " of meeting, " +
          escapedForMarkup(meeting.implementation.empty() ? "no status from the helper"
                                                          : meeting.implementation) +
          (meeting.isRedacted ? ", recorded without words and audio" : "") +
          ". The helper's end: " + escapedForMarkup(meeting.end.value_or("not recorded")) +
          ". Clock of the helper against the host's: " +
          (meeting.clockOffset ? fixed(*meeting.clockOffset) + " ms" : "not measured, no ping") + ".</p>\n";

  page +=
      "<h2>Latency</h2>\n<table><tr><th>source</th><th class=\"number\">finals</th><th class=\"number\">"
      "end of speech to final, median</th><th class=\"number\">95 %</th><th class=\"number\">without the "
      "wait "
      "for the pause, median</th><th class=\"number\">95 %</th><th class=\"number\">gaps</th></tr>\n";
  for (const auto& [name, source] : meeting.sources) page += latencyRow(name, source);
  page +=
      "</table>\n<h2>Picture</h2>\n<p class=\"legend\"><span><i "
      "style=\"background:var(--voice)\"></i>loudness, "
      "60 dB</span><span>- - threshold of voice</span><span><i "
      "style=\"background:var(--speech)\"></i>utterance"
      "</span><span><i style=\"background:var(--end)\"></i>final</span><span><i "
      "style=\"background:var(--gap)\">"
      "</i>gap in the capture times</span></p>\n";
  for (const auto& [name, source] : meeting.sources)
    page += "<h3>" + escapedForMarkup(name) + "</h3>\n" + Picture(meeting, source).svg();

  page += "<h2>Errors</h2>\n";
  if (meeting.errors.empty()) {
    page += "<p>None.</p>\n";
  } else {
    page += "<table><tr><th>code</th><th class=\"number\">times</th><th>text of the first</th></tr>\n";
    for (const auto& [code, error] : meeting.errors)
      page += "<tr><td>" + escapedForMarkup(code) + "</td><td class=\"number\">" +
              std::to_string(error.count) + "</td><td>" + escapedForMarkup(error.text) + "</td></tr>\n";
    page += "</table>\n";
  }

  page +=
      "<h2>Transcript</h2>\n<table><tr><th class=\"number\">time</th><th>source</th><th>text</th><th>end</th>"
      "<th class=\"number\">latency</th></tr>\n";
  for (const auto& [name, final] : allFinals(meeting))
    page += "<tr><td class=\"number\">" + clockText(final->startedAt - meeting.startedAt) + "</td><td>" +
            escapedForMarkup(name) + "</td><td>" + escapedForMarkup(shownText(*final)) + "</td><td>" +
            escapedForMarkup(final->reason) + "</td><td class=\"number\">" + inMilliseconds(final->latency) +
            "</td></tr>\n";
  return page + "</table>\n</html>\n";
}

std::vector<Caption> captionsOf(const Meeting& meeting) {
  std::vector<Caption> captions;
  for (const auto& [name, final] : allFinals(meeting))
    captions.push_back(
        {final->startedAt - meeting.startedAt, endOf(*final) - meeting.startedAt, name, shownText(*final)});
  return captions;
}

}  // namespace palaver::cli
