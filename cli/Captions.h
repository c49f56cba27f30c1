// Writes transcripts as subtitles.
#pragma once

#include <string>
#include <vector>

namespace palaver::cli {

// What one speaker said in one go. Times are ms from the start of the audio.
struct Caption {
  double start = 0;
  double end = 0;
  std::string speaker;
  std::string text;
};

// The functions sort by time, leave out captions without text, and put each into one line. Times before 0
// become 0, and a caption lasts at least `minCaption`. Markup in texts is shown and not interpreted. Any
// thread.
inline constexpr double minCaption = 500;  // ms

// Returns a SubRip file. The format has no standard and no escapes: a space takes the meaning from what
// players interpret, "<i>", "{\an8}" and "-->".
std::string srtOf(std::vector<Caption> captions);

// Returns a WebVTT file (https://www.w3.org/TR/webvtt1/) with a voice for each speaker.
std::string vttOf(std::vector<Caption> captions);

// Replaces the characters that have a meaning in HTML and WebVTT.
std::string escapedForMarkup(const std::string& text);

// Returns hours, minutes, seconds and ms, as "01:02:03.456" with that separator before the ms. Negative times
// are those of 0.
std::string captionTime(double milliseconds, char separator);

}  // namespace palaver::cli
