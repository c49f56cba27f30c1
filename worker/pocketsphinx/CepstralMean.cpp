#include "worker/pocketsphinx/CepstralMean.h"

#include <algorithm>
#include <functional>

namespace palaver {

CepstralMean::CepstralMean(std::span<const mfcc_t> initial)
    : mean_(initial.begin(), initial.end()), sum_(mean_.size()), pendingSum_(mean_.size()) {}

void CepstralMean::add(std::span<const mfcc_t> sum, std::int32_t frames) {
  std::ranges::transform(pendingSum_, sum, pendingSum_.begin(), std::plus<double>());
  pendingFrames_ += frames;
}

void CepstralMean::confirm() {
  if (pendingFrames_ == 0) return;
  std::ranges::transform(sum_, pendingSum_, sum_.begin(), std::plus<>());
  frames_ += static_cast<double>(pendingFrames_);
  speechFrames_ += pendingFrames_;
  discard();
  std::ranges::transform(sum_, mean_.begin(),
                         [this](double sum) { return static_cast<mfcc_t>(sum / frames_); });
  if (frames_ <= window) return;
  for (auto& sum : sum_) sum *= windowAfterwards / frames_;
  frames_ = windowAfterwards;
}

void CepstralMean::discard() {
  std::ranges::fill(pendingSum_, 0);
  pendingFrames_ = 0;
}

}  // namespace palaver
