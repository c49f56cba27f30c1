// Tracks the mean of one speaker's spectrum, which is subtracted from every frame before recognition.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <sphinxbase/cmn.h>

namespace palaver {

// Averages speech frames only. Frames are held back until they are known to be speech. Otherwise the mean
// after a long silence would be that of the silence, and the first words after it would be misrecognized.
//
// Owned by one decoder. Used on its thread.
class CepstralMean {
 public:
  // Speech frames (10 ms each) after which older frames lose weight, and the number of frames they then count
  // for. Both are the library's figures for a live mean.
  static constexpr double window = CMN_WIN_HWM;
  static constexpr double windowAfterwards = CMN_WIN;

  // `initial`: the mean before any speech, as given by the model.
  explicit CepstralMean(std::span<const mfcc_t> initial = {});

  // Adds the sum of `frames` frames. It has as many coefficients as the initial mean.
  void add(std::span<const mfcc_t> sum, std::int32_t frames);
  // Counts what was added since the last confirm() or discard() as speech.
  void confirm();
  // Drops what was added since the last confirm() or discard().
  void discard();

  // Mean of the speech so far, or the initial mean.
  const std::vector<mfcc_t>& mean() const { return mean_; }
  // Frames of all speech so far.
  std::int64_t speechFrames() const { return speechFrames_; }

 private:
  std::vector<mfcc_t> mean_;
  std::vector<double> sum_;         // sum of the speech frames
  double frames_ = 0;               // weight of sum_, frames
  std::vector<double> pendingSum_;  // sum of the frames held back
  std::int64_t pendingFrames_ = 0;
  std::int64_t speechFrames_ = 0;
};

}  // namespace palaver
