#include "cli/report.h"

#include <cstdio>
#include <filesystem>
#include <string_view>

#include "cli/ArgumentReader.h"
#include "cli/Captions.h"
#include "cli/MeetingReport.h"
#include "cli/Recording.h"
#include "cli/writeFile.h"

namespace palaver::cli {

namespace {

constexpr const char* usage =
    R"(usage: palaver-stt report [options] FILE

Makes a page of a meeting that palaver-stt record has recorded: transcript, latency,
errors, and a picture of loudness, utterances and gaps. Writes FILE.html and the
subtitles FILE.srt and FILE.vtt, readable by you alone. The page needs no network.

  --output NAME  write NAME.html, NAME.srt and NAME.vtt
  --help         print this help

Exit status: 0 success, 1 failure, 2 invalid usage.
)";

void write(const std::string& path, std::string_view text) {
  writePrivateFile(path, text);
  std::printf("%s\n", path.c_str());
}

}  // namespace

int report(std::span<const std::string> arguments) {
  std::string output;
  const auto given = readOneFile(arguments, "recording", [&output](const std::string& option, auto& reader) {
    if (option != "--output") return false;
    output = reader.value();
    return true;
  });
  if (!given) return std::fputs(usage, stdout) < 0 ? 1 : 0;
  const auto& file = *given;
  if (output.empty()) output = file;
  const auto meeting = meetingOf(readConversation(file));
  write(output + ".html", htmlPage(meeting, std::filesystem::path(file).stem().string()));
  write(output + ".srt", srtOf(captionsOf(meeting)));
  write(output + ".vtt", vttOf(captionsOf(meeting)));
  return 0;
}

}  // namespace palaver::cli
