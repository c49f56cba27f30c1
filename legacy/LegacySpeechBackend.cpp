#include "legacy/LegacySpeechBackend.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "core/JSONLineWriter.h"
#include "core/PCMDecoding.h"
#include "legacy/DictationProbe.h"
#include "legacy/LegacyReadiness.h"
#include "legacy/LegacyRecognitionChannel.h"
#include "platform/Clock.h"
#include "platform/Platform.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

namespace {

std::string_view statusMessage(const LegacyReadiness& readiness) {
  if (readiness.authorization == AuthorizationStatus::notDetermined)
    return "Run `npm run helper:authorize` once to grant Speech Recognition access.";
  if (readiness.authorization != AuthorizationStatus::authorized)
    return "Enable Speech Recognition for Palaver in System Settings > Privacy & Security.";
  if (readiness.onDevice && readiness.dictation == DictationAvailability::disabled)
    return dictationSetupMessage;
  if (readiness.onDevice) return "On-device Japanese speech recognition is ready.";
  return "The Japanese on-device recognition model is unavailable. Enable Japanese Dictation and download "
         "its model in "
         "System Settings.";
}

}  // namespace

LegacySpeechBackend::LegacySpeechBackend(Platform& platform, JSONLineWriter& writer,
                                         DictationProbe& dictation)
    : platform_(platform),
      writer_(writer),
      dictation_(dictation),
      self_(std::make_shared<LegacySpeechBackend*>(this)) {}

LegacySpeechBackend::~LegacySpeechBackend() = default;

std::string_view LegacySpeechBackend::implementationName() const {
  return legacyImplementationName;
}

void LegacySpeechBackend::emitStatus() {
  const auto readiness = legacyReadiness(platform_, dictation_);
  Event event = statusEvent(readiness);
  event["message"] = statusMessage(readiness);
  writer_.write(event);
}

void LegacySpeechBackend::startSession(std::string_view id, std::string_view locale,
                                       std::span<const std::string_view> vocabulary) {
  stopSession(id);
  sessions_.insert_or_assign(std::string(id), SessionConfiguration(locale, vocabulary));
  // An unavailable session stays open. Its error is reported when audio arrives.
  const bool available = isAvailable(locale);
  if (available) platform_.speechRecognition.prepare(locale);
  writer_.write({{"type", "session.ready"},
                 {"sessionId", id},
                 {"available", available},
                 {"implementation", legacyImplementationName},
                 {"locale", locale}});
  if (!available) emitStatus();
}

bool LegacySpeechBackend::isAvailable(std::string_view locale) {
  if (platform_.speechRecognition.authorizationStatus() != AuthorizationStatus::authorized) return false;
  const auto recognizer = platform_.speechRecognition.makeRecognizer(locale);
  if (!recognizer || !recognizer->supportsOnDeviceRecognition()) return false;
  return dictation_.availability(locale) != DictationAvailability::disabled;
}

void LegacySpeechBackend::appendAudio(std::string_view sessionId, AudioSource source, std::int64_t sequence,
                                      double capturedAt, std::string_view pcmBase64) {
  const auto session = sessions_.find(sessionId);
  if (session == sessions_.end())
    return writer_.error("Audio received before session.start", sessionId, source);
  const ChannelKeyView key{sessionId, source};
  if (suppressed_.contains(key)) return;
  if (dictation_.cachedVerdict() == DictationAvailability::disabled) {
    if (dictation_.availability(session->second.locale) == DictationAvailability::disabled)
      return reportDictationDisabled({std::string(sessionId), source});
    // Dictation is on again.
    if (const auto notice = dictationNoticeSent_.find(key); notice != dictationNoticeSent_.end())
      dictationNoticeSent_.erase(notice);
    emitStatus();
  }
  try {
    auto buffer = makePCMBuffer(platform_.audioBuffers, pcmBase64);
    auto channel = channels_.find(key);
    if (channel == channels_.end()) {
      ChannelKey newKey{std::string(sessionId), source};
      auto newChannel = makeChannel(newKey, session->second);
      channel = channels_.emplace(std::move(newKey), std::move(newChannel)).first;
    }
    channel->second->append(std::move(buffer), sequence, capturedAt);
  } catch (const std::exception& error) {
    writer_.error(error.what(), sessionId, source);
  }
}

std::shared_ptr<LegacyRecognitionChannel> LegacySpeechBackend::makeChannel(
    const ChannelKey& key, const SessionConfiguration& session) {
  return LegacyRecognitionChannel::make(platform_, key.sessionId, key.source, session.locale,
                                        session.vocabulary, writer_, [weakSelf = std::weak_ptr(self_), key] {
                                          // A copy, as this callback may be destroyed with its channel.
                                          if (const auto self = weakSelf.lock())
                                            (*self)->handleDictationDisabled(ChannelKey(key));
                                        });
}

void LegacySpeechBackend::reportDictationDisabled(const ChannelKey& key) {
  if (!dictationNoticeSent_.insert(key).second) return;
  writer_.error(dictationSetupMessage, key.sessionId, key.source);
  emitStatus();
}

void LegacySpeechBackend::handleDictationDisabled(const ChannelKey& key) {
  dictation_.recordDisabled();
  channels_.erase(key);  // dropped without a final
  reportDictationDisabled(key);
}

void LegacySpeechBackend::setSuppressed(std::string_view sessionId, AudioSource source, bool suppressed) {
  const ChannelKeyView key{sessionId, source};
  if (suppressed) {
    suppressed_.insert({std::string(sessionId), source});
    if (const auto channel = channels_.find(key); channel != channels_.end()) {
      const auto cancelled = std::move(channel->second);
      channels_.erase(channel);
      cancelled->cancel(true);
    }
  } else if (const auto muted = suppressed_.find(key); muted != suppressed_.end()) {
    suppressed_.erase(muted);
  }
  writer_.write({{"type", "source.suppressed"},
                 {"sessionId", sessionId},
                 {"source", rawValue(source)},
                 {"suppressed", suppressed},
                 {"at", platform_.clock.nowMilliseconds()}});
}

void LegacySpeechBackend::stopSession(std::string_view id) {
  // A copy, as `id` may refer to the key of the erased entry.
  const std::string sessionId(id);
  const auto session = sessions_.find(sessionId);
  const bool wasOpen = session != sessions_.end();
  if (wasOpen) sessions_.erase(session);
  const auto isOfSession = [&sessionId](const ChannelKey& key) { return key.sessionId == sessionId; };
  std::erase_if(suppressed_, isOfSession);
  std::erase_if(dictationNoticeSent_, isOfSession);

  std::vector<std::shared_ptr<LegacyRecognitionChannel>> stopping;
  std::erase_if(channels_, [&](const auto& entry) {
    if (!isOfSession(entry.first)) return false;
    stopping.push_back(entry.second);
    return true;
  });
  if (!wasOpen && stopping.empty()) return;
  for (const auto& channel : stopping) channel->finish();
  writer_.write(
      {{"type", "session.stopped"}, {"sessionId", sessionId}, {"at", platform_.clock.nowMilliseconds()}});
}

void LegacySpeechBackend::stopAll() {
  for (const auto& [key, channel] : channels_) channel->finish();
  channels_.clear();
  sessions_.clear();
  suppressed_.clear();
  dictationNoticeSent_.clear();
}

}  // namespace palaver
