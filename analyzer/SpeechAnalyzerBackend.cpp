#include "analyzer/SpeechAnalyzerBackend.h"

#include <asio/awaitable.hpp>
#include <nlohmann/json.hpp>
#include <utility>

#include "analyzer/AnalyzerReadiness.h"
#include "analyzer/Await.h"
#include "analyzer/SerialPromise.h"
#include "analyzer/Spawn.h"
#include "analyzer/SpeechAnalyzerChannel.h"
#include "core/JSONLineWriter.h"
#include "core/PCMDecoding.h"
#include "platform/Clock.h"
#include "platform/Platform.h"
#include "platform/SpeechAnalysis.h"
#include "platform/Tasks.h"

namespace palaver {

namespace {

asio::awaitable<void> checkModel(Platform& platform, JSONLineWriter& writer) {
  const auto model = co_await japaneseModel(platform);
  if (!model) {
    writer.error("SpeechAnalyzer does not support Japanese on this Mac");
    co_return;
  }
  Event event = statusEvent(*model);
  event["message"] = *model == AssetStatus::installed
                         ? "On-device Japanese SpeechAnalyzer model is ready."
                         : "Run `npm run helper:install-model` while online, then retry.";
  writer.write(event);
}

}  // namespace

// Builds one channel and runs all later operations on it, one after the other in the order in which they were
// started. Everything runs on the channel's serial executor. Operations that wait for the channel resume in
// the order of their arrival.
class SpeechAnalyzerBackend::ChannelTask : public std::enable_shared_from_this<ChannelTask> {
 public:
  ChannelTask(Platform& platform, JSONLineWriter& writer, std::string sessionId, AudioSource source)
      : platform_(platform),
        writer_(writer),
        sessionId_(std::move(sessionId)),
        source_(source),
        executor_(platform.tasks.executor()) {}

  void build(SessionConfiguration configuration) {
    spawn(executor_, buildTask(shared_from_this(), std::move(configuration)));
  }
  void append(double capturedAt, std::string pcmBase64) {
    spawn(executor_, appendTask(shared_from_this(), capturedAt, std::move(pcmBase64)));
  }
  void finish() { spawn(executor_, endTask(shared_from_this(), &SpeechAnalyzerChannel::finish)); }
  void cancel() { spawn(executor_, endTask(shared_from_this(), &SpeechAnalyzerChannel::cancel)); }

 private:
  using Channel = std::shared_ptr<SpeechAnalyzerChannel>;

  static asio::awaitable<void> buildTask(std::shared_ptr<ChannelTask> self,
                                         SessionConfiguration configuration) {
    const SerialPromise<Channel>::Keeper keeper(self->channel_);
    try {
      const Channel channel = co_await SpeechAnalyzerChannel::make(
          self->executor_, self->platform_, self->writer_, self->sessionId_, self->source_,
          configuration.locale, configuration.vocabulary);
      self->writer_.write({{"type", "session.ready"},
                           {"sessionId", self->sessionId_},
                           {"source", rawValue(self->source_)},
                           {"available", true},
                           {"implementation", analyzerImplementationName},
                           {"locale", configuration.locale}});
      self->channel_.resolve(channel);
    } catch (const std::exception&) {
      self->channel_.reject(std::current_exception());  // reported when audio is appended
    }
  }

  static asio::awaitable<void> appendTask(std::shared_ptr<ChannelTask> self, double capturedAt,
                                          std::string pcmBase64) {
    try {
      const auto buffer = makePCMBuffer(self->platform_.audioBuffers, pcmBase64);
      std::string().swap(pcmBase64);  // the wait for the channel holds the audio only
      const Channel channel = co_await self->channel_.value();
      channel->append(buffer, capturedAt);
    } catch (const std::exception& error) {
      self->writer_.error(std::string("SpeechAnalyzer input failed: ") + error.what(), self->sessionId_,
                          self->source_);
    }
  }

  static asio::awaitable<void> endTask(std::shared_ptr<ChannelTask> self,
                                       asio::awaitable<void> (SpeechAnalyzerChannel::*end)()) {
    try {
      const Channel channel = co_await self->channel_.value();
      co_await (*channel.*end)();
    } catch (const std::exception&) {
      // A channel that could not be built needs no end. Errors of an end are not reported.
    }
  }

  Platform& platform_;
  JSONLineWriter& writer_;
  const std::string sessionId_;
  const AudioSource source_;
  const SerialExecutor executor_;
  SerialPromise<Channel> channel_;
};

SpeechAnalyzerBackend::SpeechAnalyzerBackend(Platform& platform, JSONLineWriter& writer)
    : platform_(platform), writer_(writer) {}

SpeechAnalyzerBackend::~SpeechAnalyzerBackend() = default;

std::string_view SpeechAnalyzerBackend::implementationName() const {
  return analyzerImplementationName;
}

void SpeechAnalyzerBackend::emitStatus() {
  writer_.write(
      {{"type", "helper.status"},
       {"status", platform_.speechAnalysis.isTranscriberAvailable() ? "checking-model" : "unavailable"},
       {"available", false},
       {"implementation", analyzerImplementationName},
       {"authorization", "not-required"},
       {"protocolVersion", protocolVersion}});
  spawn(platform_.tasks.executor(), checkModel(platform_, writer_));
}

void SpeechAnalyzerBackend::startSession(std::string_view id, std::string_view locale,
                                         std::span<const std::string_view> vocabulary) {
  stopSession(id);
  const auto session =
      sessions_.insert_or_assign(std::string(id), SessionConfiguration(locale, vocabulary)).first;
  for (const auto source : allAudioSources) createChannel(id, source, session->second);
}

void SpeechAnalyzerBackend::createChannel(std::string_view sessionId, AudioSource source,
                                          const SessionConfiguration& configuration) {
  auto task = std::make_shared<ChannelTask>(platform_, writer_, std::string(sessionId), source);
  task->build(configuration);
  channels_.insert_or_assign(ChannelKey{std::string(sessionId), source}, std::move(task));
}

void SpeechAnalyzerBackend::appendAudio(std::string_view sessionId, AudioSource source,
                                        std::int64_t /*sequence*/, double capturedAt,
                                        std::string_view pcmBase64) {
  const ChannelKeyView key{sessionId, source};
  if (suppressed_.contains(key)) return;
  if (const auto channel = channels_.find(key); channel != channels_.end())
    channel->second->append(capturedAt, std::string(pcmBase64));
}

void SpeechAnalyzerBackend::setSuppressed(std::string_view sessionId, AudioSource source, bool suppressed) {
  const ChannelKeyView key{sessionId, source};
  if (suppressed) {
    suppressed_.insert({std::string(sessionId), source});
    if (const auto channel = channels_.find(key); channel != channels_.end()) {
      channel->second->cancel();
      channels_.erase(channel);
    }
  } else if (const auto muted = suppressed_.find(key); muted != suppressed_.end()) {
    suppressed_.erase(muted);
    if (const auto session = sessions_.find(sessionId); session != sessions_.end())
      createChannel(sessionId, source, session->second);
  }
  writer_.write({{"type", "source.suppressed"},
                 {"sessionId", sessionId},
                 {"source", rawValue(source)},
                 {"suppressed", suppressed},
                 {"at", platform_.clock.nowMilliseconds()}});
}

void SpeechAnalyzerBackend::stopSession(std::string_view id) {
  const std::string sessionId(id);
  const bool wasOpen = sessions_.erase(sessionId) > 0;
  const auto isOfSession = [&sessionId](const ChannelKey& key) { return key.sessionId == sessionId; };
  std::erase_if(suppressed_, isOfSession);
  const auto finished = std::erase_if(channels_, [&](const auto& entry) {
    if (!isOfSession(entry.first)) return false;
    entry.second->finish();
    return true;
  });
  if (!wasOpen && finished == 0) return;
  writer_.write(
      {{"type", "session.stopped"}, {"sessionId", sessionId}, {"at", platform_.clock.nowMilliseconds()}});
}

void SpeechAnalyzerBackend::stopAll() {
  for (const auto& [key, channel] : channels_) channel->cancel();
  channels_.clear();
  sessions_.clear();
  suppressed_.clear();
}

}  // namespace palaver
