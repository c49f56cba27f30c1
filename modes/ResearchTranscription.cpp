#include "modes/ResearchTranscription.h"

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "analyzer/AnalyzerReadiness.h"
#include "analyzer/Spawn.h"
#include "analyzer/SpeechAnalyzerChannel.h"
#include "core/BackendSelection.h"
#include "core/JSONLineWriter.h"
#include "core/PCMDecoding.h"
#include "core/Protocol.h"
#include "core/endProcess.h"
#include "platform/AudioBuffer.h"
#include "platform/AudioFile.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/Tasks.h"

namespace palaver {

namespace {

constexpr std::size_t maxVocabulary = 100;
constexpr std::uint32_t framesPerBuffer = 4000;  // 250 ms

PlatformError researchError(long code, const std::string& text) {
  return {"STTResearch", code, text};
}

std::vector<std::string> readVocabulary(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::system_error(errno, std::generic_category(), "cannot open the vocabulary file");
  std::string text;
  try {
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  } catch (const std::ios_base::failure& error) {
    throw std::system_error(error.code(), "cannot read the vocabulary file");
  }
  const auto vocabulary = nlohmann::json::parse(text, nullptr, false);
  const auto isText = [](const auto& entry) { return entry.is_string(); };
  if (!vocabulary.is_array() || !std::all_of(vocabulary.begin(), vocabulary.end(), isText))
    throw std::runtime_error("the vocabulary file is not a JSON array of strings");
  return vocabulary.get<std::vector<std::string>>();
}

// Runs on the channel's executor.
asio::awaitable<void> transcribe(SerialExecutor executor, AudioFile& file,
                                 std::vector<std::string> vocabulary, Platform& platform,
                                 JSONLineWriter& writer) {
  const auto channel =
      co_await SpeechAnalyzerChannel::make(executor, platform, writer, "research", AudioSource::remote,
                                           std::string(statusLocale), std::move(vocabulary));
  std::exception_ptr failure;
  try {
    co_await readRecording(file, platform.audioBuffers, [&channel](const auto& buffer, double capturedAt) {
      channel->append(buffer, capturedAt);
    });
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  if (failure) {
    co_await channel->cancel();
    std::rethrow_exception(failure);
  }
  co_await channel->finish();
}

asio::awaitable<void> transcribeAndExit(std::string path, std::string vocabularyPath, Platform& platform,
                                        JSONLineWriter& writer) {
  int status = 0;
  try {
    co_await transcribeResearchFile(std::move(path), std::move(vocabularyPath), platform, writer);
  } catch (const std::exception& error) {
    writer.error(std::string("Research transcription failed: ") + error.what());
    status = 1;
  }
  endProcess(platform.process, writer, status);
}

}  // namespace

asio::awaitable<void> readRecording(AudioFile& file, AudioBuffers& audioBuffers, RecordingConsumer consumer) {
  const auto& format = file.processingFormat();
  while (file.framePosition() < file.length()) {
    const auto buffer = audioBuffers.makeBuffer(format, framesPerBuffer);
    if (!buffer) throw researchError(3, "Cannot allocate research audio buffer");
    const double capturedAt = static_cast<double>(file.framePosition()) / format.sampleRate * 1000;
    file.read(*buffer);
    if (buffer->frameLength() == 0) break;
    consumer(buffer, capturedAt);
    co_await asio::post(asio::use_awaitable);  // lets the channel's result loop run
  }
}

asio::awaitable<void> transcribeResearchFile(std::string path, std::string vocabularyPath, Platform& platform,
                                             JSONLineWriter& writer) {
  auto vocabulary = readVocabulary(vocabularyPath);
  const auto vocabularyCount = vocabulary.size();
  if (vocabularyCount > maxVocabulary) throw researchError(1, "Research vocabulary exceeds 100 terms");
  const auto file = platform.audioFiles.openForReading(path);
  const auto& format = file->processingFormat();
  if (format.channelCount != 1 || format.sampleRate != helperSampleRate)
    throw researchError(2, "Expected 16 kHz mono audio");

  const SerialExecutor executor(platform.tasks.executor());
  co_await asio::co_spawn(executor, transcribe(executor, *file, std::move(vocabulary), platform, writer),
                          asio::use_awaitable);
  writer.write({{"type", "research.complete"},
                {"implementation", analyzerImplementationName},
                {"module", "SpeechTranscriber"},
                {"vocabularyCount", vocabularyCount}});
}

void runResearchTranscription(Platform& platform, JSONLineWriter& writer,
                              std::span<const std::string> paths) {
  if (paths.size() != 2) {
    writer.error("Usage: --research-transcribe-file <wav-path> <vocabulary-json-path>");
    endProcess(platform.process, writer, 2);
  }
  if (!hasSpeechAnalyzer(platform.process)) {
    writer.error(
        "Offline research probe requires macOS 26 and Swift 6.2; legacy recognition is not measured by this "
        "command");
    endProcess(platform.process, writer, 1);
  }
  spawn(platform.tasks.executor(), transcribeAndExit(paths[0], paths[1], platform, writer));
  platform.mainQueue.run();
}

}  // namespace palaver
