#include "bench/accuracy/SoundSequence.h"

#include <algorithm>
#include <utility>

namespace palaver::accuracy {

SoundSequence::SoundSequence(std::vector<std::string> paths, std::int64_t pause) : paths_(std::move(paths)) {
  starts_.push_back(pause);
  for (const auto& path : paths_) starts_.push_back(starts_.back() + SoundFileSource(path).length() + pause);
}

std::size_t SoundSequence::read(std::span<std::int16_t> frames) {
  std::size_t written = 0;
  while (written < frames.size() && position_ < length()) {
    const auto count = readSome(frames.subspan(written));
    written += count;
    position_ += static_cast<std::int64_t>(count);
  }
  return written;
}

std::size_t SoundSequence::readSome(std::span<std::int16_t> frames) {
  if (playing_) {
    const auto count = playing_->read(frames);
    if (count > 0) return count;
    playing_.reset();
    ++next_;
  }
  const auto silence = starts_[next_] - position_;
  if (silence <= 0) {
    playing_ = std::make_unique<SoundFileSource>(paths_[next_]);
    return 0;
  }
  const auto count = std::min(frames.size(), static_cast<std::size_t>(silence));
  std::fill_n(frames.begin(), count, std::int16_t{0});
  return count;
}

std::int64_t SoundSequence::length() const {
  return starts_.back();
}

}  // namespace palaver::accuracy
