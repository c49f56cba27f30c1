#include "platform/linux/WorkerWatchdog.h"

#include <algorithm>

#include "platform/linux/WorkerFrames.h"

namespace palaver {

void WorkerWatchdog::loaded() {
  loaded_ = true;
  for (auto& [number, channel] : channels_) channel.waitingSince.reset();
}

void WorkerWatchdog::channelOpened(std::uint32_t channel) {
  channels_[channel].isOpen = true;
}

void WorkerWatchdog::channelClosed(std::uint32_t channel) {
  const auto found = channels_.find(channel);
  if (found == channels_.end()) return;
  found->second.isOpen = false;
  eraseIfDone(channel);
}

void WorkerWatchdog::taskStarted(std::uint32_t channel, std::uint32_t task) {
  channels_[channel].tasks.push_back({.number = task});
  channelOfTask_[task] = channel;
}

void WorkerWatchdog::audioSent(std::uint32_t task, std::uint64_t frames) {
  if (auto* const found = find(task)) found->sent += frames;
}

void WorkerWatchdog::audioEnded(std::uint32_t task) {
  if (auto* const found = find(task)) found->audioEnded = true;
}

void WorkerWatchdog::audioConsumed(std::uint32_t task, std::uint64_t frames) {
  auto* const found = find(task);
  if (!found) return;
  found->consumed = std::max(found->consumed, frames);
  progressed(task);
}

void WorkerWatchdog::answered(std::uint32_t task) {
  progressed(task);
}

void WorkerWatchdog::decodingBegan(std::uint64_t frames) {
  decodedFrames_ = frames;
  for (auto& [number, channel] : channels_) channel.waitingSince.reset();
}

double WorkerWatchdog::answeringLimit() const {
  return limits_.answering +
         limits_.decodingPace * 1000 * static_cast<double>(decodedFrames_) / workerSampleRate;
}

void WorkerWatchdog::taskEnded(std::uint32_t task) {
  const auto entry = channelOfTask_.find(task);
  if (entry == channelOfTask_.end()) return;
  const auto number = entry->second;
  auto& channel = channels_[number];
  std::erase_if(channel.tasks, [task](const Task& other) { return other.number == task; });
  channel.waitingSince.reset();
  channelOfTask_.erase(entry);
  eraseIfDone(number);
}

WorkerWatchdog::Verdict WorkerWatchdog::check(double now) {
  watched_ += std::clamp(now - checkedAt_, 0.0, isWatching() ? 2 * limits_.check : limits_.idle);
  checkedAt_ = now;
  if (!loaded_) {
    waitsForUseSince_ = watched_;
    return watched_ >= limits_.loading ? Verdict::loadingHangs : Verdict::good;
  }
  if (channels_.empty()) return watched_ - waitsForUseSince_ >= limits_.idle ? Verdict::idle : Verdict::good;
  waitsForUseSince_ = watched_;
  for (auto& [number, channel] : channels_) {
    if (channel.tasks.empty() || !channel.tasks.front().expectsProgress()) {
      channel.waitingSince.reset();
    } else if (!channel.waitingSince) {
      channel.waitingSince = watched_;
    } else if (watched_ - *channel.waitingSince >= answeringLimit()) {
      return Verdict::answeringHangs;
    }
  }
  return Verdict::good;
}

WorkerWatchdog::Channel* WorkerWatchdog::channelOf(std::uint32_t task) {
  const auto number = channelOfTask_.find(task);
  return number == channelOfTask_.end() ? nullptr : &channels_[number->second];
}

WorkerWatchdog::Task* WorkerWatchdog::find(std::uint32_t task) {
  auto* const channel = channelOf(task);
  if (!channel) return nullptr;
  const auto found = std::ranges::find(channel->tasks, task, &Task::number);
  return found == channel->tasks.end() ? nullptr : &*found;
}

void WorkerWatchdog::progressed(std::uint32_t task) {
  if (auto* const channel = channelOf(task)) channel->waitingSince.reset();
}

void WorkerWatchdog::eraseIfDone(std::uint32_t channel) {
  const auto found = channels_.find(channel);
  if (found != channels_.end() && !found->second.isOpen && found->second.tasks.empty())
    channels_.erase(found);
}

}  // namespace palaver
