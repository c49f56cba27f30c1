#include "cli/TranscribeArguments.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <locale>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "cli/ArgumentReader.h"

namespace palaver::cli {

namespace {

constexpr double minSpeed = 0.1;
constexpr double maxSpeed = 100;

double parseSpeed(const std::string& text) {
  double speed = 0;
  // std::from_chars for floating point requires macOS 26.
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  stream >> std::noskipws >> speed;
  if (!stream || stream.peek() != std::istringstream::traits_type::eof() ||
      !(speed >= minSpeed && speed <= maxSpeed))
    throw UsageError("--speed takes a number from 0.1 to 100, not '" + text + "'");
  return speed;
}

std::vector<std::string> splitAtCommas(const std::string& text) {
  std::vector<std::string> phrases;
  for (std::size_t from = 0; from <= text.size();) {
    const auto end = std::min(text.find(',', from), text.size());
    if (end > from) phrases.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return phrases;
}

std::vector<std::string> readVocabulary(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw UsageError("cannot read the vocabulary file " + path);
  auto phrases = parseVocabulary(file);
  if (!phrases) throw UsageError("the vocabulary file " + path + " is not a JSON array of strings");
  return std::move(*phrases);
}

int parseNumber(const std::string& option, const std::string& text, int highest) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 1 || number > highest)
    throw UsageError(option + " takes a whole number from 1 to " + std::to_string(highest) + ", not '" +
                     text + "'");
  return number;
}

TranscriptFormat parseFormat(const std::string& text) {
  static const std::map<std::string, TranscriptFormat> formats{{"text", TranscriptFormat::text},
                                                               {"srt", TranscriptFormat::srt},
                                                               {"vtt", TranscriptFormat::vtt},
                                                               {"json", TranscriptFormat::json}};
  const auto format = formats.find(text);
  if (format == formats.end()) throw UsageError("--format takes text, srt, vtt or json, not '" + text + "'");
  return format->second;
}

void check(const TranscribeArguments& parsed, bool hasFormat) {
  if (parsed.remote == standardInputPath && parsed.self == standardInputPath)
    throw UsageError("standard input can be only one of both sides");
  if (parsed.json && (hasFormat || parsed.output))
    throw UsageError("--json prints events, and goes without --format and --output");
  const auto isRaw = [](const std::string& path) {
    return path == standardInputPath || path.ends_with(".raw");
  };
  if (parsed.raw && !isRaw(parsed.remote) && !(parsed.self && isRaw(*parsed.self)))
    throw UsageError("--rate and --channels describe raw samples, and other files state their own");
}

}  // namespace

std::optional<std::vector<std::string>> parseVocabulary(std::istream& file) {
  const auto json = nlohmann::json::parse(file, nullptr, false);
  if (!json.is_array()) return std::nullopt;
  std::vector<std::string> phrases;
  for (const auto& phrase : json) {
    if (!phrase.is_string()) return std::nullopt;
    phrases.push_back(phrase.get<std::string>());
  }
  return phrases;
}

TranscribeArguments parseTranscribeArguments(std::span<const std::string> arguments) {
  TranscribeArguments parsed;
  std::vector<std::string> files;
  RawFormat raw;
  bool hasRaw = false;
  bool hasFormat = false;
  for (ArgumentReader reader(arguments); !reader.atEnd();) {
    const auto argument = reader.next();
    if (argument == "--helper") {
      parsed.helper = reader.value();
    } else if (argument == "--helper-argument") {
      parsed.helperArguments.push_back(reader.value());
    } else if (argument == "--locale") {
      parsed.locale = reader.value();
    } else if (argument == "--vocabulary") {
      parsed.vocabulary = splitAtCommas(reader.value());
    } else if (argument == "--vocabulary-file") {
      parsed.vocabulary = readVocabulary(reader.value());
    } else if (argument == "--speed") {
      parsed.speed = parseSpeed(reader.value());
    } else if (argument == "--self") {
      parsed.self = reader.value();
    } else if (argument == "--rate" || argument == "-r") {
      raw.sampleRate = parseNumber(argument, reader.value(), maxSampleRate);
      hasRaw = true;
    } else if (argument == "--channels" || argument == "-c") {
      raw.channelCount = parseNumber(argument, reader.value(), maxChannelCount);
      hasRaw = true;
    } else if (argument == "--format") {
      parsed.format = parseFormat(reader.value());
      hasFormat = true;
    } else if (argument == "--output" || argument == "-o") {
      parsed.output = reader.value();
    } else if (argument == "--json") {
      parsed.json = true;
    } else if (argument == "--help" || argument == "-h") {
      parsed.help = true;
    } else if (argument.starts_with("-") && argument != "-") {
      throw UsageError("unknown option " + argument);
    } else {
      files.push_back(argument);
    }
    reader.expectNoValue();
  }
  if (parsed.help) return parsed;
  if (files.empty()) throw UsageError("missing sound file");
  if (files.size() > (parsed.self ? 1U : 2U))
    throw UsageError("too many sound files: expected REMOTE and optionally SELF");
  parsed.remote = files[0];
  if (files.size() > 1) parsed.self = files[1];
  if (hasRaw) parsed.raw = raw;
  check(parsed, hasFormat);
  return parsed;
}

const std::string_view transcribeUsage =
    R"(usage: palaver-stt transcribe [options] REMOTE [SELF]

Streams sound to the helper in real time, as a host does, and shows the transcript.
REMOTE is the far side of the call, SELF the user's own microphone. Each is a sound
file, raw samples in a file named *.raw, or - for standard input, which holds WAV or
raw samples and is transcribed while it flows:

  arecord -f S16_LE -r 16000 | palaver-stt transcribe -
  parec --rate=48000 --channels=2 | palaver-stt transcribe - --rate 48000 --channels 2

Ctrl-C ends standard input, and the last words are still shown.

  --self FILE             the same as SELF
  --rate HZ               rate of raw samples, also -r (default: 16000)
  --channels N            channels of raw samples, also -c (default: 1). Raw samples are
                          16-bit little-endian
  --format FORMAT         write the transcript as text, srt, vtt or json (default: text)
  --output FILE           write it to FILE, also -o, readable by you alone
  --locale LOCALE         language, such as ja-JP (default: en-US)
  --vocabulary A,B,...    names and terms to expect
  --vocabulary-file FILE  the same, as a JSON array of strings
  --speed FACTOR          factor of real time, 0.1 to 100 (default: 1). The helper measures
                          silence in real time, so utterances then end at other places
  --json                  print the helper's events unchanged
  --helper PATH           helper to run (default: the one beside this program)
  --helper-argument TEXT  argument for the helper; may be repeated
  --help                  print this help

Exit status: 0 success, 1 failure, 2 invalid usage.
)";

}  // namespace palaver::cli
