#include "cli/Captions.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace palaver::cli {

namespace {

constexpr double maxTime = 359'999'999;  // ms: 99:59:59.999, the last time with hours of two digits

double bounded(double milliseconds) {
  return std::isfinite(milliseconds) ? std::clamp(std::round(milliseconds), 0.0, maxTime) : 0;
}

// Returns the text in one line: white space and control characters become single spaces, and none at the
// ends.
std::string inOneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) > ' ' && c != '\x7F') {
      line += c;
    } else if (!line.empty() && line.back() != ' ') {
      line += ' ';
    }
  }
  while (line.ends_with(' ')) line.pop_back();
  return line;
}

std::vector<Caption> prepared(std::vector<Caption> captions) {
  for (auto& caption : captions) {
    caption.text = inOneLine(caption.text);
    caption.speaker = inOneLine(caption.speaker);
    caption.start = std::min(bounded(caption.start), maxTime - minCaption);
    caption.end = std::max(bounded(caption.end), caption.start + minCaption);
  }
  std::erase_if(captions, [](const Caption& caption) { return caption.text.empty(); });
  std::ranges::stable_sort(captions, {}, &Caption::start);
  return captions;
}

// Separates with a space what players would interpret.
std::string withoutMarkup(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    result += text[i];
    const char next = i + 1 < text.size() ? text[i + 1] : ' ';
    const bool isTag = text[i] == '<' && next != ' ';
    const bool isOverride = text[i] == '{' && next == '\\';
    const bool isArrow = text[i] == '-' && text.compare(i, 3, "-->") == 0;
    if (isTag || isOverride || isArrow) result += ' ';
  }
  return result;
}

}  // namespace

std::string captionTime(double milliseconds, char separator) {
  const auto all = std::llround(std::clamp(milliseconds, 0.0, maxTime));
  char text[64];
  std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld%c%03lld", all / 3'600'000, all / 60'000 % 60,
                all / 1000 % 60, separator, all % 1000);
  return text;
}

std::string escapedForMarkup(const std::string& text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string srtOf(std::vector<Caption> captions) {
  std::string out;
  std::size_t number = 0;
  for (const auto& caption : prepared(std::move(captions)))
    out += std::to_string(++number) + "\n" + captionTime(caption.start, ',') + " --> " +
           captionTime(caption.end, ',') + "\n" + withoutMarkup(caption.speaker + ": " + caption.text) +
           "\n\n";
  return out;
}

std::string vttOf(std::vector<Caption> captions) {
  std::string out = "WEBVTT\n\n";
  for (const auto& caption : prepared(std::move(captions)))
    out += captionTime(caption.start, '.') + " --> " + captionTime(caption.end, '.') + "\n<v " +
           escapedForMarkup(caption.speaker) + ">" + escapedForMarkup(caption.text) + "\n\n";
  return out;
}

}  // namespace palaver::cli
