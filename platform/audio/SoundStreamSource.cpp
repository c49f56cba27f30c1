#include "platform/audio/SoundStreamSource.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace palaver {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t maxReadyFrames = std::size_t{60} * sampleRate;
constexpr std::int64_t liveSlackFrames = sampleRate;  // that a recorder may hold back and then write at once

}  // namespace

SoundStreamSource::SoundStreamSource(int descriptor, std::string name, std::optional<RawFormat> stated)
    : descriptor_(descriptor), name_(std::move(name)), stream_(stated) {}

int SoundStreamSource::descriptor() const {
  return hasEnded_ || ready_.size() >= maxReadyFrames ? -1 : descriptor_;
}

void SoundStreamSource::receive() {
  receiveOnce();
}

// Reads once, which may block when nothing is there. Returns whether there may be more.
bool SoundStreamSource::receiveOnce() {
  std::array<std::uint8_t, 1 << 16> bytes;
  const auto count = ::read(descriptor_, bytes.data(), bytes.size());
  if (count < 0) {
    if (errno == EINTR || errno == EAGAIN) return true;
    fail("cannot be read: " + std::generic_category().message(errno));
  }
  if (count == 0) {
    end();
    return false;
  }
  if (!firstAt_) firstAt_ = Clock::now();
  const auto before = ready_.size();
  try {
    stream_.append(std::span(bytes).first(static_cast<std::size_t>(count)), ready_);
  } catch (const std::runtime_error& error) {
    fail(error.what());
  }
  received_ += static_cast<std::int64_t>(ready_.size() - before);
  wasFull_ = wasFull_ || ready_.size() >= maxReadyFrames;
  return true;
}

std::size_t SoundStreamSource::read(std::span<std::int16_t> frames) {
  const auto count = std::min(frames.size(), ready_.size());
  const auto end = ready_.begin() + static_cast<std::ptrdiff_t>(count);
  std::copy(ready_.begin(), end, frames.begin());
  ready_.erase(ready_.begin(), end);
  return count;
}

// A recording that is piped in arrives as fast as it is read. A microphone cannot be ahead of the clock.
std::optional<Clock::time_point> SoundStreamSource::liveSince() const {
  if (!firstAt_ || wasFull_ || hasEnded_) return std::nullopt;
  const std::chrono::duration<double> elapsed = Clock::now() - *firstAt_;
  const auto captured = static_cast<std::int64_t>(elapsed.count() * sampleRate);
  return received_ <= captured + liveSlackFrames ? firstAt_ : std::nullopt;
}

void SoundStreamSource::stop() {
  for (int reads = 0; !hasEnded_ && reads < 64; ++reads) {
    pollfd wait{descriptor_, POLLIN, 0};
    if (::poll(&wait, 1, 0) <= 0 || !receiveOnce()) break;
  }
  if (!hasEnded_) end();
}

void SoundStreamSource::end() {
  hasEnded_ = true;
  const auto before = ready_.size();
  try {
    stream_.finish(ready_);
  } catch (const std::runtime_error& error) {
    fail(error.what());
  }
  received_ += static_cast<std::int64_t>(ready_.size() - before);
  if (received_ == 0) fail("contains no audio");
}

void SoundStreamSource::fail(const std::string& reason) const {
  throw std::runtime_error(name_ + " " + reason);
}

}  // namespace palaver
