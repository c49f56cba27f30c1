#include "simulator/scenario/AudioTrace.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace palaver {

namespace {

double rootMeanSquare(const std::vector<std::int16_t>& samples) {
  if (samples.empty()) return 0;
  const double sum = std::accumulate(
      samples.begin(), samples.end(), 0.0,
      [](double total, std::int16_t sample) { return total + sample / 32768.0 * (sample / 32768.0); });
  return std::sqrt(sum / static_cast<double>(samples.size()));
}

// Keeps which sources accept audio, as the host's commands determine it.
class OpenSources {
 public:
  explicit OpenSources(std::vector<Episode>& episodes) : episodes_(episodes) {}

  void handle(const HostCommand& command) {
    if (!command.isComplete() || !command.sessionId) return;
    const auto& session = *command.sessionId;
    if (command.type == "session.start" || command.type == "session.stop") {
      for (const auto* const source : {"remote", "self"}) close({session, source}, command.time, false);
      started_.erase(session);
    }
    if (command.type == "session.start") {
      started_[session] = command;
      for (const auto* const source : {"remote", "self"}) open({session, source});
    }
    if (command.type != "source.suppress" || !started_.contains(session)) return;
    const Channel channel(session, *command.source);
    if (*command.suppressed) {
      close(channel, command.time, true);
    } else if (!current_.contains(channel)) {
      open(channel);
    }
  }
  std::size_t episode(const Channel& channel) const {
    const auto found = current_.find(channel);
    return found == current_.end() ? std::string::npos : found->second;
  }

 private:
  void open(const Channel& channel) {
    current_[channel] = episodes_.size();
    episodes_.push_back({.channel = channel, .start = started_.at(channel.first)});
  }
  void close(const Channel& channel, double time, bool isMuted) {
    const auto found = current_.find(channel);
    if (found == current_.end()) return;
    episodes_[found->second].end = time;
    episodes_[found->second].isMutedAtEnd = isMuted;
    current_.erase(found);
  }

  std::vector<Episode>& episodes_;
  std::map<std::string, HostCommand> started_;
  std::map<Channel, std::size_t> current_;
};

}  // namespace

const AudioTrace& Observation::audio() const {
  if (!audio_) audio_ = std::make_shared<AudioTrace>(*this);
  return *audio_;
}

std::optional<double> Receiver::time(const char* key) const {
  const auto& value = record->at(key);
  return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

AudioTrace::AudioTrace(const Observation& observation) : observation_(observation) {
  followHost();
  followReceivers();
}

void AudioTrace::followHost() {
  OpenSources sources(episodes);
  for (const auto& command : observation_.input.commands) {
    sources.handle(command);
    if (command.type != "audio" || !command.isComplete()) continue;
    const Channel channel(*command.sessionId, *command.source);
    const auto payload = decodePayload(*command.pcmBase64);
    Chunk chunk{&command,
                channel,
                sources.episode(channel),
                !payload.error,
                rootMeanSquare(payload.samples),
                payload.samples.size()};
    if (!payload.samples.empty()) chunk.name = payload.samples.front();
    if (chunk.name != 0) {
      const auto [known, isNew] = names.try_emplace(chunk.name, chunks.size());
      if (!isNew) chunks[known->second].name = chunk.name = 0;  // no longer a name of one chunk
    }
    if (chunk.episode != std::string::npos && chunk.isValid)
      episodes[chunk.episode].chunks.push_back(chunks.size());
    chunks.push_back(std::move(chunk));
  }
  std::erase_if(names, [this](const auto& entry) { return chunks[entry.second].name == 0; });
  if (observation_.input.endsAt)
    for (auto& episode : episodes) episode.end = std::min(episode.end, *observation_.input.endsAt);
}

void AudioTrace::followReceivers() {
  const auto records = observation_.record.received.find(observation_.isLegacy ? "requests" : "analyzers");
  if (records == observation_.record.received.end()) return;
  for (const auto& record : *records) {
    Receiver receiver{&record, {}, 0};
    const auto take = [&](const char* key) {
      if (!record.contains(key)) return;
      for (const auto& sample : record.at(key)) {
        const auto found = names.find(sample.get<std::int16_t>());
        if (found == names.end()) continue;
        receiver.chunks.push_back(found->second);
        chunks[found->second].isReceived = true;
      }
    };
    take("firstSamples");
    receiver.received = receiver.chunks.size();
    take("droppedFirstSamples");
    if (!receiver.chunks.empty()) receiver.episode = chunks[receiver.chunks.front()].episode;
    if (receiver.episode != std::string::npos)
      episodes[receiver.episode].receivers.push_back(receivers.size());
    receivers.push_back(std::move(receiver));
  }
}

bool AudioTrace::isTouchedByDictation(const Channel& channel) const {
  return std::ranges::any_of(observation_.events, [&](const ObservedEvent& event) {
    return event.code == "dictation-disabled" && event.channel() == channel;
  });
}

bool AudioTrace::isReportedLost(const Chunk& chunk) const {
  return std::ranges::any_of(observation_.events, [&](const ObservedEvent& event) {
    return event.isError() && event.channel() == chunk.channel && event.time >= chunk.command->time &&
           (!observation_.isLegacy || event.time <= observation_.handledBy(chunk.command->time)) &&
           event.code != "recognition-failed" && event.code != "result-stream-failed";
  });
}

bool AudioTrace::keepsContract(const Channel& channel) const {
  return std::ranges::none_of(receivers, [&](const Receiver& receiver) {
    // A task without audio may be one of this source.
    const bool isOther =
        receiver.episode != std::string::npos && episodes[receiver.episode].channel != channel;
    return !isOther && receiver.record->value("answersAfterEnd", 0) > 0;
  });
}

}  // namespace palaver
