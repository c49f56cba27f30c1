// Fakes the platform objects that the core uses and records its calls.
#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/SpeechBackend.h"
#include "platform/AudioBuffer.h"
#include "platform/AudioConverter.h"
#include "platform/AudioFile.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/SpeechAnalysis.h"
#include "platform/SpeechRecognition.h"
#include "platform/StandardStreams.h"
#include "platform/Tasks.h"
#include "platform/posix/AbsentServices.h"
#include "platform/posix/ThreadPoolTasks.h"

namespace palaver {

class FixedClock final : public Clock {
 public:
  explicit FixedClock(double now = 1700000000123.5) : now_(now) {}
  double nowMilliseconds() const override { return now_; }

 private:
  double now_;  // ms since the Unix epoch
};

// Records every write separately. Any thread.
class RecordingStream final : public OutputStream {
 public:
  void write(std::string_view bytes) override {
    const std::lock_guard guard(lock_);
    writes_.emplace_back(bytes);
  }
  std::vector<std::string> writes() const {
    const std::lock_guard guard(lock_);
    return writes_;
  }
  std::string text() const {
    std::string all;
    for (const auto& write : writes()) all += write;
    return all;
  }

 private:
  mutable std::mutex lock_;
  std::vector<std::string> writes_;
};

// Keeps jobs until the test runs them.
class ManualMainQueue final : public MainQueue {
 public:
  void async(Job job) override { jobs_.push_back(std::move(job)); }
  void runSlice(double) override {}
  std::unique_ptr<Semaphore> makeSemaphore() override { return nullptr; }
  bool isCurrent() const override { return true; }

  std::size_t size() const { return jobs_.size(); }
  // Runs and destroys one job.
  void runOne() {
    const auto job = std::move(jobs_.front());
    jobs_.pop_front();
    job();
  }
  void runAll() {
    while (!jobs_.empty()) runOne();
  }

 private:
  void serve() override { std::abort(); }

  std::deque<Job> jobs_;
};

// Thrown in place of exiting the process.
struct Exit {
  int status;
};

class FakeProcess final : public Process {
 public:
  const std::vector<std::string>& arguments() const override { return arguments_; }
  std::optional<std::string> environmentVariable(std::string_view) const override { return std::nullopt; }
  bool isMacOSAtLeast(OperatingSystemVersion) const override { return false; }

 private:
  void terminate(int status) override { throw Exit{status}; }

  std::vector<std::string> arguments_{"helper"};
};

class NoInput final : public StandardInput {
 public:
  void start(InputHandler&) override {}
};

class NoAudioBuffers final : public AudioBuffers {
 public:
  std::optional<AudioFormat> makeFormat(CommonFormat, double, std::uint32_t, bool) override {
    return std::nullopt;
  }
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat&, std::uint32_t) override { return nullptr; }
};

class NoSpeechRecognition final : public SpeechRecognition {
 public:
  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::denied; }
  void requestAuthorization(std::function<void(AuthorizationStatus)>) override {}
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view) override { return nullptr; }
};

struct FakePlatform {
  FixedClock clock;
  FakeProcess process;
  ManualMainQueue mainQueue;
  NoInput standardInput;
  RecordingStream standardOutput;
  RecordingStream standardError;
  NoAudioBuffers audioBuffers;
  NoSpeechRecognition speechRecognition;
  AbsentSpeechAnalysis speechAnalysis;
  AbsentAudioConverters audioConverters;
  AbsentAudioFiles audioFiles;
  ThreadPoolTasks tasks;
  Platform platform = platformOf(*this);
};

// Records each call as one line of text.
class RecordingBackend final : public SpeechBackend {
 public:
  std::string_view implementationName() const override { return "recording"; }
  void emitStatus() override { calls.emplace_back("emitStatus"); }
  void startSession(std::string_view id, std::string_view locale,
                    std::span<const std::string_view> vocabulary) override {
    std::string call = "startSession(" + quoted(id) + ", " + quoted(locale) + ", [";
    for (const auto phrase : vocabulary) call += quoted(phrase) + ";";
    calls.push_back(call + "])");
  }
  void appendAudio(std::string_view sessionId, AudioSource source, std::int64_t sequence, double capturedAt,
                   std::string_view pcmBase64) override {
    calls.push_back("appendAudio(" + quoted(sessionId) + ", " + std::string(rawValue(source)) + ", " +
                    std::to_string(sequence) + ", " + std::to_string(capturedAt) + ", " + quoted(pcmBase64) +
                    ")");
  }
  void setSuppressed(std::string_view sessionId, AudioSource source, bool suppressed) override {
    calls.push_back("setSuppressed(" + quoted(sessionId) + ", " + std::string(rawValue(source)) + ", " +
                    (suppressed ? "true" : "false") + ")");
  }
  void stopSession(std::string_view id) override { calls.push_back("stopSession(" + quoted(id) + ")"); }
  void stopAll() override { calls.emplace_back("stopAll"); }

  std::vector<std::string> calls;

 private:
  static std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }
};

}  // namespace palaver
