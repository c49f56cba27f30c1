#include "cli/report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "cli/ArgumentReader.h"
#include "cli/MeetingReport.h"
#include "cli/Recording.h"
#include "platform/posix/Descriptor.h"

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

// Replaces the file. Mode 0600: it holds what was said.
void write(const std::string& path, std::string_view text) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  const auto fail = [&path] {
    throw std::runtime_error("cannot write " + path + ": " + std::generic_category().message(errno));
  };
  if (!file.isOpen()) fail();
  while (!text.empty()) {
    const auto count = ::write(file.get(), text.data(), text.size());
    if (count < 0 && errno != EINTR) fail();
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  std::printf("%s\n", path.c_str());
}

}  // namespace

int report(std::span<const std::string> arguments) {
  std::string file, output;
  for (ArgumentReader reader(arguments); !reader.atEnd();) {
    const auto argument = reader.next();
    if (argument == "--output") {
      output = reader.value();
    } else if (argument == "--help" || argument == "-h") {
      return std::fputs(usage, stdout) < 0 ? 1 : 0;
    } else if (argument.starts_with("-")) {
      throw UsageError("unknown option " + argument);
    } else if (!file.empty()) {
      throw UsageError("too many files");
    } else {
      file = argument;
    }
    reader.expectNoValue();
  }
  if (file.empty()) throw UsageError("missing recording");
  if (output.empty()) output = file;
  const auto meeting = meetingOf(readConversation(file));
  write(output + ".html", htmlPage(meeting, std::filesystem::path(file).stem().string()));
  write(output + ".srt", srtOf(meeting));
  write(output + ".vtt", vttOf(meeting));
  return 0;
}

}  // namespace palaver::cli
