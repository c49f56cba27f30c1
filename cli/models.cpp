#include "cli/models.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "cli/ArgumentReader.h"
#include "cli/ModelStore.h"
#include "cli/checkModel.h"
#include "platform/audio/SoundFileSource.h"

namespace palaver::cli {

namespace {

constexpr const char* usage =
    R"(usage: palaver-stt models list
       palaver-stt models add FOLDER --locale LOCALE [--link]
       palaver-stt models check LOCALE [FILE]
       palaver-stt models remove LOCALE

Manages the speech models of Linux. A model is the unpacked folder of a release for
sherpa-onnx. The helper uses it for the next session in its locale. A helper that has
a model in memory keeps it until a minute after the last session.

  list    show each locale with the model that serves it
  add     check FOLDER and copy the files of its model to the user's models; FOLDER is
          not needed any more
          --locale LOCALE  the language that it serves, such as ja-JP
          --link           link to FOLDER instead, which must stay where it is; for a
                           model of several languages, add it once for each
  check   load the model as the helper does; with FILE recognize that recording, and
          show the words with their times and the speed
  remove  remove the user's model: the copy, or the link but not FOLDER

The user's models are in $XDG_DATA_HOME/palaver-stt/models, by default in
~/.local/share/palaver-stt/models. They precede those in /usr/share/palaver-stt/models,
and these precede PocketSphinx's.

Exit status: 0 success, 1 failure, 2 invalid usage.
)";

struct Arguments {
  std::vector<std::string> words;
  std::optional<std::string> locale;
  bool link = false;
  bool help = false;
};

Arguments parse(std::span<const std::string> arguments) {
  Arguments parsed;
  for (ArgumentReader reader(arguments); !reader.atEnd();) {
    const auto argument = reader.next();
    if (argument == "--help" || argument == "-h") {
      parsed.help = true;
    } else if (argument == "--link") {
      parsed.link = true;
    } else if (argument == "--locale") {
      parsed.locale = reader.value();
    } else if (argument.starts_with("-")) {
      throw UsageError("unknown option " + argument);
    } else {
      parsed.words.push_back(argument);
    }
    reader.expectNoValue();
  }
  return parsed;
}

std::string sizeText(std::uintmax_t bytes) {
  char text[32];
  if (bytes < 1'000'000) {
    std::snprintf(text, sizeof(text), "%.0f kB", static_cast<double>(bytes) / 1e3);
  } else {
    std::snprintf(text, sizeof(text), "%.0f MB", static_cast<double>(bytes) / 1e6);
  }
  return text;
}

int list(const ModelStore& store) {
  const auto entries = store.list();
  if (entries.empty()) {
    std::puts("There is no speech model. Add one: palaver-stt models add FOLDER --locale ja-JP");
    return 0;
  }
  for (const auto& entry : entries)
    std::printf("%-7s %8s  %s\n%18s%s\n", entry.model.locale.c_str(), sizeText(entry.size).c_str(),
                entry.description.c_str(), "", entry.model.folder.c_str());
  return std::ranges::all_of(entries, &ModelStore::Entry::isUsable) ? 0 : 1;
}

int add(const ModelStore& store, const Arguments& arguments) {
  if (arguments.words.size() != 2) throw UsageError("models add takes one folder");
  if (!arguments.locale) throw UsageError("models add needs --locale, such as --locale ja-JP");
  const auto placement = arguments.link ? ModelStore::Placement::link : ModelStore::Placement::copy;
  const auto entry = store.add(arguments.words[1], *arguments.locale, placement);
  std::printf("%s: %s, %s, %s %s\n", entry.model.locale.c_str(), entry.description.c_str(),
              sizeText(entry.size).c_str(), arguments.link ? "linked as" : "copied to",
              entry.model.folder.c_str());
  return 0;
}

int check(const ModelStore& store, const Arguments& arguments) {
  if (arguments.words.size() < 2 || arguments.words.size() > 3)
    throw UsageError("models check takes a locale and perhaps a sound file");
  std::vector<std::int16_t> samples;
  if (arguments.words.size() == 3) {
    SoundFileSource source(arguments.words[2]);
    samples.resize(static_cast<std::size_t>(source.length()));
    samples.resize(source.read(samples));
  }
  const auto entry = store.entryOf(arguments.words[1]);
  std::printf("%s: %s, %s, %s\n", entry.model.locale.c_str(), entry.description.c_str(),
              sizeText(entry.size).c_str(), entry.model.folder.c_str());
  if (!entry.isUsable) return 1;
  std::fflush(stdout);
  const auto checked =
      checkModel(SpeechModels(SpeechModels::usualRoots(&std::getenv)), entry.model.locale, samples);
  std::printf("loaded in %.1f s\n", checked.loadSeconds);
  if (samples.empty()) return 0;
  const double length = static_cast<double>(samples.size()) / 16000;
  std::printf("%s\n", checked.result.formattedString.empty() ? "(no speech)"
                                                             : checked.result.formattedString.c_str());
  for (const auto& segment : checked.result.segments)
    std::printf("  %7.2f s  %5.2f s  %s\n", segment.timestamp, segment.duration, segment.substring.c_str());
  std::printf("%.1f s of audio in %.2f s: %.3f s per second\n", length, checked.recognitionSeconds,
              checked.recognitionSeconds / length);
  return 0;
}

}  // namespace

int models(std::span<const std::string> given) {
  const auto arguments = parse(given);
  if (arguments.help) return std::fputs(usage, stdout) < 0 ? 1 : 0;
  if (arguments.words.empty()) throw UsageError("models needs one of list, add, check and remove");
  const ModelStore store(SpeechModels::usualRoots(&std::getenv));
  const auto& command = arguments.words.front();
  if (command != "add" && (arguments.link || arguments.locale))
    throw UsageError("--locale and --link belong to models add");
  if (command == "add") return add(store, arguments);
  if (command == "check") return check(store, arguments);
  if (command == "list") {
    if (arguments.words.size() != 1) throw UsageError("models list takes nothing else");
    return list(store);
  }
  if (command == "remove") {
    if (arguments.words.size() != 2) throw UsageError("models remove takes one locale");
    store.remove(arguments.words[1]);
    std::printf("removed the model for %s\n", arguments.words[1].c_str());
    return 0;
  }
  throw UsageError("there is no command 'models " + command + "'");
}

}  // namespace palaver::cli
