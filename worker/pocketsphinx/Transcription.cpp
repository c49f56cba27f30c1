#include "worker/pocketsphinx/Transcription.h"

#include <algorithm>
#include <utility>

namespace palaver {

namespace {

constexpr double seconds(std::int64_t samples) {
  return static_cast<double>(samples) / modelSampleRate;
}

bool isQuiet(std::span<const std::int16_t> samples) {
  constexpr double level = Transcription::quietLevel * 32768;
  double energy = 0;
  for (const double sample : samples) energy += sample * sample;
  return energy < level * level * static_cast<double>(samples.size());
}

}  // namespace

Transcription::Transcription(Decoder& decoder) : decoder_(decoder) {}

Transcription::~Transcription() {
  try {
    decoder_.endUtterance();
  } catch (const PlatformError&) {
    // The text of an unfinished transcription is not needed.
  }
}

void Transcription::process(std::span<const std::int16_t> samples) {
  received_ += std::ssize(samples);
  newest_.insert(newest_.end(), samples.begin(), samples.end());
  if (std::ssize(newest_) > keptSamples) newest_.erase(newest_.begin(), newest_.end() - keptSamples);
  quiet_ = isQuiet(samples) ? quiet_ + std::ssize(samples) : 0;
  if (inUtterance_) {
    decoder_.process(samples);
  } else if (quiet_ == 0) {
    startUtterance(std::max(settledUntil_, received_ - std::ssize(samples) - quietOverlap));
  } else {
    return;
  }
  updateWords();
  redecodeInPause();
  cutIfLong();
}

// Starts an utterance with the audio from `sample` on, which must still be in newest_.
void Transcription::startUtterance(std::int64_t sample) {
  utteranceStart_ = sample;
  decoder_.startUtterance();
  inUtterance_ = true;
  decoder_.process(audioFrom(sample));
}

// Returns the audio received from `sample` on, which must still be in newest_.
std::vector<std::int16_t> Transcription::audioFrom(std::int64_t sample) const {
  return {newest_.end() - (received_ - sample), newest_.end()};
}

void Transcription::redecodeInPause() {
  const bool isPause = !current_.empty() && pause_ >= redecodePause;
  if (!isPause) isRedecoded_ = false;
  const bool isKept = utteranceLength() <= std::ssize(newest_);
  if (!isPause || isRedecoded_ || !isKept || decoder_.knowsVoice()) return;
  isRedecoded_ = true;
  decoder_.redecode(audioFrom(utteranceStart_));
  updateWords();
}

void Transcription::finish() {
  if (!inUtterance_) return;
  inUtterance_ = false;
  decoder_.endUtterance();
  updateWords();
}

void Transcription::updateWords() {
  current_.clear();
  pause_ = utteranceLength();
  for (auto& segment : decoder_.segments()) {
    if (segment.word.empty() || segment.length() > maxWordLength) continue;
    pause_ = utteranceLength() - segment.endSample;
    current_.push_back({std::move(segment.word), utteranceStart_ + segment.startSample,
                        utteranceStart_ + segment.endSample});
  }
}

void Transcription::cutIfLong() {
  const std::int64_t length = utteranceLength();
  if (current_.empty()) {
    if (quiet_ >= quietTimeout) {
      decoder_.endUtterance();
      inUtterance_ = false;
      settledUntil_ = received_ - quietOverlap;
    } else if (length >= quietLimit) {
      cut(received_ - quietOverlap);
    }
  } else if (length >= hardLimit || (length >= pauseLimit && pause_ >= pauseLength)) {
    cut(placeToCut());
  }
}

// Returns the middle of the longest gap between words in the kept audio, or the start of that audio if
// it has none.
std::int64_t Transcription::placeToCut() const {
  const std::int64_t earliest = received_ - std::ssize(newest_);
  std::int64_t place = earliest;
  std::int64_t longest = -1;
  for (std::size_t i = 0; i < current_.size(); ++i) {
    const std::int64_t from = current_[i].endSample;
    const std::int64_t to = i + 1 < current_.size() ? current_[i + 1].startSample : received_;
    // Without a pause after it, the newest word may still be growing.
    if (i + 1 == current_.size() && to - from < pauseLength) break;
    if (from < earliest || to - from < longest) continue;
    longest = to - from;
    place = from + longest / 2;
  }
  return place;
}

void Transcription::cut(std::int64_t sample) {
  decoder_.endUtterance();
  for (auto& word : current_)
    if (word.endSample <= sample) settled_.push_back(std::move(word));
  startUtterance(sample);
  updateWords();
}

std::string Transcription::text() const {
  std::string text;
  for (const auto* words : {&settled_, &current_})
    for (const auto& word : *words) {
      if (!text.empty()) text += ' ';
      text += word.text;
    }
  return text;
}

std::vector<TranscriptionSegment> Transcription::segments() const {
  std::vector<TranscriptionSegment> segments;
  for (const auto* words : {&settled_, &current_})
    for (const auto& word : *words)
      segments.push_back({word.text, seconds(word.startSample), seconds(word.endSample - word.startSample)});
  return segments;
}

}  // namespace palaver
