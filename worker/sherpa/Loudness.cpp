#include "worker/sherpa/Loudness.h"

#include <algorithm>

namespace palaver {

void Loudness::append(std::span<const std::int16_t> samples) {
  constexpr double fullScale = 32768.0 * 32768.0;
  while (!samples.empty()) {
    const auto part = samples.first(
        std::min(samples.size(), static_cast<std::size_t>(frameLength - length_ % frameLength)));
    for (const std::int32_t sample : part) unfinished_ += static_cast<std::int64_t>(sample * sample);
    length_ += static_cast<std::int64_t>(part.size());
    samples = samples.subspan(part.size());
    if (length_ % frameLength != 0) return;
    powers_.push_back(static_cast<double>(unfinished_) / fullScale / static_cast<double>(frameLength));
    unfinished_ = 0;
  }
}

void Loudness::forgetBefore(std::int64_t sample) {
  for (; !powers_.empty() && (firstFrame_ + 1) * frameLength <= sample; ++firstFrame_) powers_.pop_front();
}

double Loudness::powerOf(std::int64_t frame) const {
  if (frame < firstFrame_ || frame >= frameCount()) return 0;
  return powers_[static_cast<std::size_t>(frame - firstFrame_)];
}

std::int64_t Loudness::voiced(std::int64_t from, std::int64_t to) const {
  std::int64_t count = 0;
  const auto last = std::min((to + frameLength - 1) / frameLength, frameCount());
  for (auto frame = std::max(from / frameLength, firstFrame_); frame < last; ++frame)
    count += isVoiced(frame) ? 1 : 0;
  return count * frameLength;
}

std::int64_t Loudness::voiceStart(std::int64_t from) const {
  for (auto frame = std::max((from + frameLength - 1) / frameLength, firstFrame_); frame < frameCount();
       ++frame)
    if (isVoiced(frame)) return frame * frameLength;
  return length_;
}

std::int64_t Loudness::voiceEnd(std::int64_t from) const {
  for (auto frame = frameCount() - 1; frame >= firstFrame_ && (frame + 1) * frameLength > from; --frame)
    if (isVoiced(frame)) return (frame + 1) * frameLength;
  return from;
}

std::int64_t Loudness::quietestPlace(std::int64_t from, std::int64_t to) const {
  constexpr std::int64_t shortestRun = 5;  // frames
  const auto first = std::max((from + frameLength - 1) / frameLength, firstFrame_);
  const auto last = std::min(to / frameLength, frameCount());
  std::int64_t longest = 0;
  std::int64_t place = (from + to) / 2;
  std::int64_t run = 0;
  for (auto frame = first; frame < last; ++frame) {
    run = isVoiced(frame) ? 0 : run + 1;
    if (run < longest || run < shortestRun) continue;
    longest = run;
    place = (frame + 1) * frameLength - run * frameLength / 2;
  }
  if (longest > 0) return place;
  double least = -1;
  double sum = 0;
  for (auto frame = first; frame < last; ++frame) {
    sum += powerOf(frame);
    if (frame - first >= shortestRun) sum -= powerOf(frame - shortestRun);
    if (frame - first + 1 < shortestRun || (least >= 0 && sum >= least)) continue;
    least = sum;
    place = (frame + 1) * frameLength - shortestRun * frameLength / 2;
  }
  return place;
}

}  // namespace palaver
