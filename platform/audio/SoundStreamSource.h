// Reads sound from a pipe while it is being made, such as that of a microphone.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/audio/SampleStream.h"
#include "platform/audio/SoundSource.h"

namespace palaver {

// Holds up to a minute of audio that has not been read. Beyond that it stops receiving, so the writer of the
// pipe waits. Used by one thread at a time.
class SoundStreamSource final : public SoundSource {
 public:
  // `descriptor` is borrowed. `name` names the stream in errors. `stated` is the format of headerless
  // samples.
  SoundStreamSource(int descriptor, std::string name, std::optional<RawFormat> stated);

  std::size_t read(std::span<std::int16_t> frames) override;
  std::int64_t length() const override { return 0; }
  int descriptor() const override;
  void receive() override;
  bool canRead(std::size_t frames) const override { return hasEnded_ || ready_.size() >= frames; }
  std::optional<std::chrono::steady_clock::time_point> liveSince() const override;
  void stop() override;

 private:
  [[noreturn]] void fail(const std::string& reason) const;
  bool receiveOnce();
  void end();

  int descriptor_;
  std::string name_;
  SampleStream stream_;
  std::vector<std::int16_t> ready_;                               // not yet read
  std::int64_t received_ = 0;                                     // 16 kHz frames
  std::optional<std::chrono::steady_clock::time_point> firstAt_;  // when the first bytes arrived
  bool wasFull_ = false;
  bool hasEnded_ = false;
};

}  // namespace palaver
