// Measures the loudness of audio in frames of 20 ms, to find voice and pauses.
#pragma once

#include <cstdint>
#include <deque>
#include <span>

#include "worker/sherpa/SpokenWord.h"

namespace palaver {

// Positions are samples from the first one appended. Frames that were forgotten count as quiet.
class Loudness {
 public:
  // Length of a frame, samples.
  static constexpr std::int64_t frameLength = speechSampleRate / 50;
  // Loudness (RMS, full scale 1) below which a frame is quiet. Intelligible speech is well above it.
  static constexpr double quietLevel = 0.003;

  void append(std::span<const std::int16_t> samples);

  // Forgets the frames before `sample`.
  void forgetBefore(std::int64_t sample);

  // Number of samples appended.
  std::int64_t length() const { return length_; }

  // Samples of voiced frames in [from, to).
  std::int64_t voiced(std::int64_t from, std::int64_t to) const;

  // Start of the first voiced frame at or after `from`, or length() when there is none.
  std::int64_t voiceStart(std::int64_t from) const;

  // End of the last voiced frame, or `from` when no frame after `from` is voiced.
  std::int64_t voiceEnd(std::int64_t from) const;

  // Middle of the longest run of quiet frames in [from, to), or of the quietest 100 ms when no run lasts 100
  // ms.
  std::int64_t quietestPlace(std::int64_t from, std::int64_t to) const;

 private:
  bool isVoiced(std::int64_t frame) const { return powerOf(frame) >= quietLevel * quietLevel; }
  double powerOf(std::int64_t frame) const;
  std::int64_t frameCount() const { return firstFrame_ + static_cast<std::int64_t>(powers_.size()); }

  std::deque<double> powers_;    // mean square of each whole frame
  std::int64_t firstFrame_ = 0;  // number of the first one in powers_
  std::int64_t length_ = 0;
  std::int64_t unfinished_ = 0;  // sum of squares of the frame that is still being filled
};

}  // namespace palaver
