// Abstracts a model in memory and the transcription of one request's audio by it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "worker/sherpa/SpokenWord.h"

namespace palaver {

// Used on one thread, the model's. Throws PlatformError.
class Transcriber {
 public:
  virtual ~Transcriber() = default;

  // Takes audio at 16 kHz. Cheap: work() decodes it.
  virtual void append(std::span<const std::int16_t> samples) = 0;
  virtual void endAudio() = 0;

  // Whether append() should be called. False while much audio waits to be decoded, so that it waits with the
  // sender, which bounds it.
  virtual bool wantsAudio() const = 0;

  // Whether work() would decode something now.
  virtual bool hasWork() const = 0;

  // Decodes one step.
  virtual void work() = 0;

  // Samples that the next step decodes.
  virtual std::int64_t stepLength() const = 0;

  // Whether the audio has ended and all of it has been decoded.
  virtual bool isFinished() const = 0;

  // Words so far, with positions in the request's audio.
  virtual std::vector<SpokenWord> words() const = 0;

  // Samples appended.
  virtual std::int64_t length() const = 0;

 protected:
  Transcriber() = default;
  Transcriber(const Transcriber&) = default;
  Transcriber& operator=(const Transcriber&) = default;
};

// Serves any number of transcribers, which must not outlive it. Used on one thread, the model's.
class LoadedModel {
 public:
  virtual ~LoadedModel() = default;

  // `phrases` are preferred where the model can do that, and ignored elsewhere.
  virtual std::unique_ptr<Transcriber> transcribe(const std::vector<std::string>& phrases) = 0;

  // Most transcribers of one call of work(). More than 1 where decoding them together costs less.
  virtual std::size_t batchSize() const { return 1; }

  // Decodes one step of each of these transcribers of this model, which have work. Returns the exception of
  // each, null where it succeeded.
  virtual std::vector<std::exception_ptr> work(std::span<Transcriber* const> batch) {
    return forEach(batch, [](Transcriber& transcriber) { transcriber.work(); });
  }

 protected:
  LoadedModel() = default;
  LoadedModel(const LoadedModel&) = default;
  LoadedModel& operator=(const LoadedModel&) = default;

  // Calls the function with each transcriber. Returns the exception of each, null where it succeeded.
  template <typename Function>
  static std::vector<std::exception_ptr> forEach(std::span<Transcriber* const> batch, Function function) {
    std::vector<std::exception_ptr> failures(batch.size());
    for (std::size_t i = 0; i < batch.size(); ++i) {
      try {
        function(*batch[i]);
      } catch (...) {
        failures[i] = std::current_exception();
      }
    }
    return failures;
  }
};

}  // namespace palaver
