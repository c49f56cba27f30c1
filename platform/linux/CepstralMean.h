// The mean of one speaker's spectrum, which is subtracted from every frame before it is recognized.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <sphinxbase/cmn.h>

namespace palaver {

// Follows the frames in which somebody spoke. Frames are held back until it is known that they belong to
// speech: after a long silence the mean would else be that of the silence, and the first words after it would
// be misheard.
//
// Of one decoder, on its thread.
class CepstralMean {
 public:
  // Frames of speech, 10 ms each, after which older ones count for less, and how many they then count for.
  // The library's own figures for a live mean.
  static constexpr double window = CMN_WIN_HWM;
  static constexpr double windowAfterwards = CMN_WIN;

  // What to take the mean for while no speech has been heard: the model knows one.
  explicit CepstralMean(std::span<const mfcc_t> initial = {});

  // Takes the sum of so many frames, of as many coefficients as the initial mean.
  void add(std::span<const mfcc_t> sum, std::int32_t frames);
  // What was added since the last call of this or of discard() is speech...
  void confirm();
  // ...or is not.
  void discard();

  // Of the speech so far, or the initial one.
  const std::vector<mfcc_t>& mean() const { return mean_; }
  // Frames of all speech so far.
  std::int64_t speechFrames() const { return speechFrames_; }

 private:
  std::vector<mfcc_t> mean_;
  std::vector<double> sum_;         // of speech
  double frames_ = 0;               // that sum_ counts for
  std::vector<double> pendingSum_;  // of what may be speech
  std::int64_t pendingFrames_ = 0;
  std::int64_t speechFrames_ = 0;
};

}  // namespace palaver
