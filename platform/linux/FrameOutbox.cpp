#include "platform/linux/FrameOutbox.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace palaver {

namespace {

// Most entries of one call; each takes up to two pieces.
constexpr std::size_t entriesPerCall = 16;

}  // namespace

std::size_t FrameOutbox::Entry::bytes() const {
  return buffer ? preamble.size() + std::size_t{frames} * sizeof(std::int16_t) : control.size();
}

void FrameOutbox::push(std::string frame) {
  entries_.push_back({std::move(frame), {}, 0, nullptr, 0, 0});
}

void FrameOutbox::pushAudio(std::uint32_t task, std::uint64_t position,
                            std::shared_ptr<const PCMBuffer> buffer, std::uint32_t first,
                            std::uint32_t frames) {
  entries_.push_back(
      {{}, encodeAudioPreamble(task, position, frames), task, std::move(buffer), first, frames});
  auto& waiting = waiting_[task];
  waiting += frames;
  while (waiting > maxWaitingFrames) {
    const auto oldest = std::ranges::find_if(entries_, [&](const Entry& entry) {
      return entry.buffer && entry.task == task && !isPartlyWritten(entry);
    });
    waiting -= oldest->frames;
    entries_.erase(oldest);
  }
}

void FrameOutbox::dropAudio(std::uint32_t task) {
  std::erase_if(entries_, [&](const Entry& entry) {
    return entry.buffer && entry.task == task && !isPartlyWritten(entry);
  });
  if (entries_.empty() || entries_.front().task != task) waiting_.erase(task);
}

bool FrameOutbox::flush(int socket) {
  while (!entries_.empty()) {
    std::array<iovec, 2 * entriesPerCall> pieces;
    std::size_t count = 0;
    std::size_t skipped = written_;
    const auto add = [&](const void* bytes, std::size_t size) {
      const auto skip = std::min(skipped, size);
      skipped -= skip;
      if (size > skip)
        pieces[count++] = {const_cast<char*>(static_cast<const char*>(bytes)) + skip, size - skip};
    };
    for (std::size_t i = 0; i < entries_.size() && i < entriesPerCall; ++i) {
      const Entry& entry = entries_[i];
      if (entry.buffer) {
        add(entry.preamble.data(), entry.preamble.size());
        add(entry.buffer->int16ChannelData() + entry.first, std::size_t{entry.frames} * sizeof(std::int16_t));
      } else {
        add(entry.control.data(), entry.control.size());
      }
    }
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = count;
    const auto sent = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS;
    }
    written_ += static_cast<std::size_t>(sent);
    while (!entries_.empty() && written_ >= entries_.front().bytes()) {
      written_ -= entries_.front().bytes();
      forget(entries_.front());
      entries_.pop_front();
    }
  }
  return true;
}

void FrameOutbox::forget(const Entry& entry) {
  if (!entry.buffer) return;
  const auto waiting = waiting_.find(entry.task);
  if (waiting == waiting_.end()) return;
  waiting->second -= std::min<std::uint64_t>(waiting->second, entry.frames);
  if (waiting->second == 0) waiting_.erase(waiting);
}

std::uint64_t FrameOutbox::waitingFrames(std::uint32_t task) const {
  const auto waiting = waiting_.find(task);
  return waiting == waiting_.end() ? 0 : waiting->second;
}

}  // namespace palaver
