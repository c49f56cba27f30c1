// Converts audio of any rate and channel count to 16 kHz mono 16-bit audio.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct SpeexResamplerState_;  // as declared by <speex/speex_resampler.h>

namespace palaver {

// Mixes channels to their mean and resamples a stream block by block. The result does not depend on the size
// of the blocks, and its first frame is the stream's first frame. Used by one thread at a time.
class MonoResampler {
 public:
  // `inputRate` (Hz) is 1 to maxSampleRate. Throws std::runtime_error when the memory does not suffice.
  MonoResampler(int inputRate, int channelCount);

  // Appends to `out` the 16 kHz frames that become known with these frames: interleaved, full scale 1.
  void convert(std::span<const float> interleaved, std::vector<std::int16_t>& out);

  // Appends the frames that the resampler still holds. Call once, at the end of the stream.
  void finish(std::vector<std::int16_t>& out);

  // Returns the number of 16 kHz frames that a stream of `frames` frames becomes.
  std::int64_t outputFramesFor(std::int64_t frames) const;

 private:
  struct Destroy {
    void operator()(SpeexResamplerState_* resampler) const;
  };

  void resample(std::vector<std::int16_t>& out, std::int64_t limit);

  std::unique_ptr<SpeexResamplerState_, Destroy> resampler_;  // null for 16 kHz
  std::int64_t rate_;                                         // Hz
  std::size_t channels_;
  std::int64_t framesRead_ = 0;
  std::int64_t framesMade_ = 0;
  std::vector<float> mono_;  // one block
};

}  // namespace palaver
