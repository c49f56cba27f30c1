#include "simulator/machine/SimulatedMachine.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

namespace palaver {

namespace {

class SimulatedSemaphore final : public Semaphore {
 public:
  explicit SimulatedSemaphore(Scheduler& scheduler) : scheduler_(scheduler) {}

  void signal() override { ++count_; }
  bool wait(double timeoutMilliseconds) override {
    if (!scheduler_.waitUntil([this] { return count_ > 0; }, timeoutMilliseconds)) return false;
    --count_;
    return true;
  }

 private:
  Scheduler& scheduler_;
  int count_ = 0;
};

}  // namespace

std::optional<std::string> SimulatedProcess::environmentVariable(std::string_view name) const {
  const auto found = environment_.find(name);
  if (found == environment_.end()) return std::nullopt;
  return found->second;
}

bool SimulatedProcess::isMacOSAtLeast(OperatingSystemVersion version) const {
  return macOS_ && isAtLeast(*macOS_, version);
}

bool isAtLeast(const OperatingSystemVersion& version, const OperatingSystemVersion& wanted) {
  return std::tie(version.major, version.minor, version.patch) >=
         std::tie(wanted.major, wanted.minor, wanted.patch);
}

std::unique_ptr<Semaphore> SimulatedMainQueue::makeSemaphore() {
  return std::make_unique<SimulatedSemaphore>(scheduler_);
}

void SimulatedInput::start(InputHandler& handler) {
  handler_ = &handler;
  scheduler_.schedule(0, Timeline::Context::background, this, [this] { handOver(); });
}

void SimulatedInput::arrive(std::string bytes) {
  waiting_.push_back(std::move(bytes));
  handOver();
}

void SimulatedInput::end() {
  hasEnded_ = true;
  handOver();
}

void SimulatedInput::handOver() {
  if (!handler_) return;
  while (!waiting_.empty()) {
    std::string_view rest = waiting_.front();
    while (!rest.empty()) {
      const auto room = handler_->prepare();
      const std::size_t count = std::min(room.size(), rest.size());
      std::memcpy(room.data(), rest.data(), count);
      handler_->received(count);
      rest.remove_prefix(count);
    }
    waiting_.pop_front();
  }
  if (hasEnded_) std::exchange(handler_, nullptr)->ended();
}

void RecordingOutput::write(std::string_view bytes) {
  if (scheduler_.hasEnded()) return;
  rest_ += bytes;
  for (std::size_t end; (end = rest_.find('\n')) != std::string::npos; rest_.erase(0, end + 1))
    lines_.push_back({scheduler_.now(), rest_.substr(0, end), ++lineCount_});
}

std::optional<AudioFormat> SimulatedAudioBuffers::makeFormat(CommonFormat commonFormat, double sampleRate,
                                                             std::uint32_t channels, bool interleaved) {
  if (fault_ == Fault::noFormat) return std::nullopt;
  if (working_) return working_->makeFormat(commonFormat, sampleRate, channels, interleaved);
  return AudioFormat{commonFormat, sampleRate, channels, interleaved};
}

std::shared_ptr<PCMBuffer> SimulatedAudioBuffers::makeBuffer(const AudioFormat& format,
                                                             std::uint32_t frameCapacity) {
  if (fault_ == Fault::noBuffer || (fault_ == Fault::noEmptyBuffer && frameCapacity == 0)) return nullptr;
  if (fault_ == Fault::noOtherFormat && format != AudioFormat{CommonFormat::int16, 16000, 1, false})
    return nullptr;
  AudioFormat made = format;
  if (fault_ == Fault::noSamples) made.commonFormat = CommonFormat::float32;
  if (working_) return working_->makeBuffer(made, frameCapacity);
  most_ = std::max(most_, ++*left_);
  return {new PCMBuffer(made, frameCapacity), [left = left_](const PCMBuffer* buffer) {
            delete buffer;
            --*left;
          }};
}

}  // namespace palaver
