#include "cli/HostSession.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/AudioChunk.h"
#include "cli/EventText.h"
#include "cli/HostCommands.h"
#include "cli/PCM.h"

namespace palaver::cli {

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

// Queue limit for a helper that reads slowly: 6 s of one source.
constexpr std::size_t maxQueuedBytes = std::size_t{256} << 10;
constexpr int maxReadsAtOnce = 16;      // of 64 KiB: output must not delay the audio
constexpr int maxChunksAtOnce = 20;     // a late stream must not delay reading
constexpr double quietAfterText = 700;  // ms: held-back audio may open another utterance right after a final
constexpr double killAfter = 2000;      // ms between SIGTERM and SIGKILL
constexpr char interruptRequest = 'i';
constexpr char stopRequest = 's';
constexpr double busyLoad = 1.5;  // threads per processor: recognition no longer keeps up with two sources

std::string seconds(double milliseconds) {
  const auto tenths = std::llround(milliseconds / 100);
  return std::to_string(tenths / 10) + (tenths % 10 != 0 ? "." + std::to_string(tenths % 10) : "") + " s";
}

}  // namespace

double loadPerProcessor() {
  double load = 0;
  if (::getloadavg(&load, 1) != 1) return 0;
  return load / std::max(1U, std::thread::hardware_concurrency());
}

HostSession::HostSession(HostConfiguration configuration, std::unique_ptr<SoundSource> remote,
                         std::unique_ptr<SoundSource> self, HostObserver& observer)
    : configuration_(std::move(configuration)), observer_(observer), interruption_(makePipe()) {
  setNonBlocking(interruption_.readEnd.get());
  if (!(configuration_.speed > 0)) throw std::invalid_argument("the speed must be above 0");
  stream(AudioSource::remote).sound = std::move(remote);
  stream(AudioSource::selfAudio).sound = std::move(self);
  bool isKnown = true;
  for (const auto& stream : streams_) {
    if (!stream.sound) continue;
    isKnown = isKnown && stream.sound->length() > 0;
    total_ = std::max(total_, static_cast<double>(stream.sound->length()) * 1000 / sampleRate);
  }
  if (!isKnown) total_ = 0;
}

void HostSession::interrupt() noexcept {
  wake(interruptRequest);
}

void HostSession::stopAudio() noexcept {
  wake(stopRequest);
}

void HostSession::wake(char request) noexcept {
  [[maybe_unused]] const auto count = ::write(interruption_.writeEnd.get(), &request, 1);
}

bool HostSession::run() {
  helper_ = std::make_unique<PipedProcess>(configuration_.helper);
  enter(Phase::awaitingStatus);
  while (phase_ != Phase::done) {
    waitForSomething();
    readHelper();
    advance();
    helper_->flush();
    if (phase_ != Phase::done && helper_->exitStatus()) handleExit();
  }
  return ok_;
}

void HostSession::waitForSomething() {
  double timeout = 50;
  if (isStreaming() && helper_->queuedBytes() < maxQueuedBytes && isChunkThere())
    timeout = std::clamp(Milliseconds(due() - SteadyClock::now()).count(), 0.0, timeout);
  const auto soundDescriptor = [this](std::size_t source) {
    const auto& stream = streams_[source];
    return stream.sound && !stream.ended ? stream.sound->descriptor() : -1;
  };
  std::array<pollfd, 6> descriptors{{
      {helper_->output(), POLLIN, 0},
      {helper_->diagnostics(), POLLIN, 0},
      {interruption_.readEnd.get(), POLLIN, 0},
      {helper_->queuedBytes() > 0 ? helper_->input() : -1, POLLOUT, 0},
      {soundDescriptor(0), POLLIN, 0},
      {soundDescriptor(1), POLLIN, 0},
  }};
  // An interrupted poll() counts as finished, because the loop checks every descriptor anyway.
  ::poll(descriptors.data(), descriptors.size(), static_cast<int>(std::ceil(timeout)));
  for (std::size_t source = 0; source < streams_.size(); ++source)
    if (descriptors[4 + source].revents != 0) receiveAudio(source);
  if (descriptors[2].revents != 0) handleRequests();
}

void HostSession::receiveAudio(std::size_t source) {
  if (phase_ == Phase::closing || phase_ == Phase::done) return;
  try {
    streams_[source].sound->receive();
  } catch (const std::runtime_error& error) {
    streams_[source].ended = true;
    giveUp(error.what());
  }
}

void HostSession::handleRequests() {
  for (char request = 0; ::read(interruption_.readEnd.get(), &request, 1) == 1;) {
    if (request == stopRequest && phase_ >= Phase::streaming) {
      if (phase_ == Phase::streaming) endAudio();
    } else {
      giveUp("interrupted");
    }
  }
}

// A microphone's last words may have arrived just now. A recording that was piped in has more than was due.
void HostSession::endAudio() {
  try {
    for (auto& stream : streams_) {
      if (live_ && stream.sound && stream.sound->length() == 0) {
        stream.sound->stop();
      } else {
        stream.ended = true;
      }
    }
  } catch (const std::runtime_error& error) {
    giveUp(error.what());
  }
}

void HostSession::readHelper() {
  try {
    readOutput();
    readDiagnostics();
  } catch (const std::length_error& error) {
    giveUp(std::string("invalid output from the helper: ") + error.what());
    helper_->signal(SIGTERM);
  }
}

void HostSession::readOutput() {
  std::string bytes;
  const auto handler = [this](std::string_view line) { handleLine(line); };
  for (int reads = 0; reads < maxReadsAtOnce; ++reads) {
    if (helper_->readOutput(bytes) != ReadOutcome::data) break;
    outputLines_.append(bytes, handler);
  }
}

void HostSession::readDiagnostics() {
  std::string bytes;
  const auto handler = [this](std::string_view line) { observer_.onDiagnostic(line); };
  for (int reads = 0; reads < maxReadsAtOnce; ++reads) {
    if (helper_->readDiagnostics(bytes) != ReadOutcome::data) break;
    diagnosticLines_.append(bytes, handler);
  }
}

void HostSession::handleLine(std::string_view line) {
  const auto event = nlohmann::json::parse(line, nullptr, false);
  if (!event.is_object()) {
    problem("the helper wrote an invalid event: " + std::string(line.substr(0, 100)));
    return;
  }
  observer_.onEvent(line, event);
  handleEvent(event);
}

void HostSession::handleEvent(const nlohmann::json& event) {
  const auto type = textOf(event, "type");
  if (type == "helper.error") {
    ok_ = false;
  } else if (type == "helper.status") {
    statusMessage_ = textOf(event, "message");
    if (phase_ == Phase::awaitingStatus) {
      helper_->write(
          sessionStart(configuration_.sessionId, configuration_.locale, configuration_.vocabulary));
      enter(Phase::awaitingReady);
    } else if (phase_ == Phase::awaitingReason) {
      giveUp("the session is not available: " + statusMessage_);
    }
  }
  if (textOf(event, "sessionId") != configuration_.sessionId) return;
  if (type == "session.ready") {
    handleReady(event);
  } else if (type == "session.stopped") {
    if (phase_ == Phase::stopping) {
      closeHelper();
    } else if (phase_ != Phase::closing) {
      giveUp("the helper stopped the session early");
    }
  } else if (type == "transcript.partial" || type == "transcript.final") {
    handleTranscript(event, type == "transcript.final");
  }
}

// Handles one "session.ready" for the session or one per source, depending on the helper's backend.
void HostSession::handleReady(const nlohmann::json& event) {
  if (phase_ != Phase::awaitingReady) return;
  const auto available = event.find("available");
  if (available == event.end() || *available != true) {
    enter(Phase::awaitingReason);
    return;
  }
  const auto source = audioSource(textOf(event, "source"));
  for (const auto each : allAudioSources)
    if (!source || *source == each) stream(each).ready = true;
  if (std::all_of(streams_.begin(), streams_.end(),
                  [](const Stream& each) { return each.ready || !each.sound; }))
    enter(Phase::awaitingAudio);
}

void HostSession::handleTranscript(const nlohmann::json& event, bool isFinal) {
  const auto source = audioSource(textOf(event, "source"));
  if (!source) {
    problem("the helper wrote a transcript without a source");
    return;
  }
  auto& transcribed = stream(*source);
  transcribed.gotText = true;
  lastTranscript_ = SteadyClock::now();
  const auto utterance = textOf(event, "utteranceId");
  if (!isFinal) {
    transcribed.openUtterance = utterance;
  } else if (transcribed.openUtterance == utterance) {
    transcribed.openUtterance.clear();
  }
}

void HostSession::advance() {
  const auto& limits = configuration_.limits;
  switch (phase_) {
    case Phase::awaitingStatus:
      if (inPhase() >= limits.status)
        giveUp("the helper has not reported its status within " + seconds(limits.status));
      break;
    case Phase::awaitingReady:
      if (inPhase() >= limits.ready) giveUp("the session was not ready within " + seconds(limits.ready));
      break;
    case Phase::awaitingReason:
      if (inPhase() >= limits.reason) giveUp("the session is not available: " + statusMessage_);
      break;
    case Phase::awaitingAudio:
      if (isChunkThere()) startStreaming();
      break;
    case Phase::streaming:
      sendDueChunks();
      if (phase_ == Phase::streaming && hasAudioEnded()) startDraining();
      break;
    case Phase::draining:
      sendDueChunks();
      if (phase_ != Phase::draining) break;
      if (!finalsAreThere()) {
        if (inPhase() < finalsLimit()) break;
        reportMissingFinal();
      }
      helper_->write(sessionStop(configuration_.sessionId));
      enter(Phase::stopping);
      break;
    case Phase::stopping:
      if (inPhase() >= limits.stopped)
        giveUp("the helper has not stopped the session within " + seconds(limits.stopped));
      break;
    case Phase::closing:
      if (signalsSent_ == 0 && inPhase() >= limits.stopped) {
        problem("the helper has not ended within " + seconds(limits.stopped) + " of the end of its input");
        helper_->signal(SIGTERM);
        signalsSent_ = 1;
      } else if (signalsSent_ == 1 && inPhase() >= limits.stopped + killAfter) {
        helper_->signal(SIGKILL);
        signalsSent_ = 2;
      }
      break;
    case Phase::done:
      break;
  }
}

void HostSession::sendDueChunks() {
  const auto now = SteadyClock::now();
  const auto queued = helper_->queuedBytes();
  const bool hasRead = queued < lastQueued_;  // no audio is added to a full queue
  lastQueued_ = queued;
  if (queued < maxQueuedBytes || hasRead) {
    lastProgress_ = now;
  } else if (Milliseconds(now - lastProgress_).count() >= configuration_.limits.stall) {
    giveUp("the helper has not read its input for " + seconds(configuration_.limits.stall));
    helper_->signal(SIGTERM);
    return;
  }
  const auto mayAdd = [this] {
    // The silence after the end has a schedule of its own.
    if (phase_ == Phase::streaming && hasAudioEnded()) return false;
    return isChunkThere() && helper_->queuedBytes() < maxQueuedBytes;
  };
  for (int sent = 0; sent < maxChunksAtOnce && now >= due() && mayAdd(); ++sent) {
    const auto position = static_cast<double>(chunks_) * chunkMilliseconds;
    try {
      for (const auto source : allAudioSources)
        if (stream(source).sound) sendChunk(source, startedAt_ + position);
    } catch (const std::runtime_error& error) {
      giveUp(error.what());
      return;
    }
    ++chunks_;
    helper_->flush();
    observer_.onProgress(position + chunkMilliseconds, total_);
  }
}

// Sends the next 100 ms of the source. After its end sends silence, like a microphone that stays open.
void HostSession::sendChunk(AudioSource source, double capturedAt) {
  auto& sending = stream(source);
  std::array<std::int16_t, chunkFrames> frames{};
  if (!sending.ended) {
    const auto count = sending.sound->read(frames);
    sending.ended = count < frames.size();
    sending.spoke = sending.spoke || loudnessOf(frames) >= voiceThreshold;
  }
  helper_->write(audio(configuration_.sessionId, source, sending.sequence++, capturedAt, frames));
}

bool HostSession::hasAudioEnded() const {
  return std::ranges::all_of(streams_, [](const Stream& each) { return each.ended || !each.sound; });
}

bool HostSession::isChunkThere() const {
  return std::ranges::all_of(streams_, [](const Stream& each) {
    return !each.sound || each.ended || each.sound->canRead(chunkFrames);
  });
}

double HostSession::finalsLimit() const {
  constexpr double mostPatience = 6;
  return configuration_.limits.finals * std::clamp(configuration_.load(), 1.0, mostPatience);
}

void HostSession::reportMissingFinal() {
  const double load = configuration_.load();
  std::string message = "a final is missing after " + seconds(inPhase()) + " of silence";
  if (load > busyLoad) {
    char busy[80];
    std::snprintf(busy, sizeof busy,
                  "the machine is too busy (%.1f threads wait for each processor): ", load);
    message = busy + message;
  }
  problem(message);
}

bool HostSession::finalsAreThere() const {
  const auto& limits = configuration_.limits;
  if (inPhase() < limits.settle) return false;
  if (Milliseconds(SteadyClock::now() - lastTranscript_).count() < quietAfterText) return false;
  return std::all_of(streams_.begin(), streams_.end(), [&](const Stream& each) {
    return each.openUtterance.empty() && (!each.spoke || each.gotText || inPhase() >= limits.firstText);
  });
}

// Handles the end of the helper, whether early or after its input was closed.
void HostSession::handleExit() {
  const auto status = helper_->exitStatus().value_or(ExitStatus{});
  std::string bytes;
  try {
    // Reads the last output, but not up to the end of the stream, which a child of the helper may keep open.
    while (helper_->readOutput(bytes) == ReadOutcome::data)
      outputLines_.append(bytes, [this](std::string_view line) { handleLine(line); });
    outputLines_.finish([this](std::string_view line) { handleLine(line); });
    readDiagnostics();
    diagnosticLines_.finish([this](std::string_view line) { observer_.onDiagnostic(line); });
  } catch (const std::length_error& error) {
    problem(std::string("invalid output from the helper: ") + error.what());
  }
  if (phase_ != Phase::closing) {
    problem("the helper ended early, with " + status.description());
  } else if (!status.isSuccess()) {
    problem("the helper ended with " + status.description());
  }
  for (const auto source : allAudioSources)
    if (!stream(source).openUtterance.empty())
      problem("the last final of " + std::string(rawValue(source)) + " is missing");
  enter(Phase::done);
}

void HostSession::enter(Phase phase) {
  phase_ = phase;
  phaseStart_ = SteadyClock::now();
}

void HostSession::startStreaming() {
  enter(Phase::streaming);
  streamStart_ = phaseStart_;
  lastProgress_ = phaseStart_;
  lastTranscript_ = phaseStart_;
  startedAt_ = Milliseconds(std::chrono::system_clock::now().time_since_epoch()).count();
  for (const auto& stream : streams_) {
    const auto since = stream.sound ? stream.sound->liveSince() : std::nullopt;
    if (!since) continue;
    live_ = true;
    startedAt_ -= Milliseconds(streamStart_ - *since).count();
    streamStart_ = *since;
  }
  observer_.onStreamStart(startedAt_);
}

// Silence follows at the pace of the clock, also where the audio came later than it was due.
void HostSession::startDraining() {
  enter(Phase::draining);
  const auto position = static_cast<double>(chunks_) * chunkMilliseconds;
  if (total_ == 0) total_ = position;
  const auto late = SteadyClock::now() - due();
  if (late > SteadyClock::duration::zero()) streamStart_ += late;
}

void HostSession::closeHelper() {
  helper_->closeInput();
  enter(Phase::closing);
}

void HostSession::problem(std::string_view message) {
  ok_ = false;
  observer_.onProblem(message);
}

void HostSession::giveUp(std::string_view message) {
  if (phase_ == Phase::closing || phase_ == Phase::done) return;
  problem(message);
  closeHelper();
}

double HostSession::inPhase() const {
  return Milliseconds(SteadyClock::now() - phaseStart_).count();
}

HostSession::SteadyClock::time_point HostSession::due() const {
  const auto milliseconds = static_cast<double>(chunks_ + 1) * chunkMilliseconds / configuration_.speed;
  return streamStart_ + std::chrono::duration_cast<SteadyClock::duration>(Milliseconds(milliseconds));
}

}  // namespace palaver::cli
