#include "worker/engine/JobRequest.h"

#include <utility>

namespace palaver {

namespace {

class Task final : public RecognitionTask {
 public:
  Task(std::shared_ptr<JobChannel> channel, std::shared_ptr<RecognitionJob> job)
      : channel_(std::move(channel)), job_(std::move(job)) {}

  void cancel() override { channel_->thread().cancel(job_); }

 private:
  const std::shared_ptr<JobChannel> channel_;
  const std::shared_ptr<RecognitionJob> job_;
};

class Request final : public RecognitionRequest {
 public:
  Request(std::shared_ptr<JobChannel> channel, RecognitionOptions options) : channel_(std::move(channel)) {
    job_->options = std::move(options);
  }
  ~Request() override {
    if (isStarted_ && !isEnded_) channel_->thread().endAudio(job_);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  void append(std::shared_ptr<const PCMBuffer> buffer) override {
    if (isEnded_ || !buffer) return;
    if (isStarted_) {
      channel_->thread().append(job_, std::move(buffer));
    } else {
      job_->audio.push_back(std::move(buffer));
    }
  }

  void endAudio() override {
    if (std::exchange(isEnded_, true)) return;
    if (isStarted_) {
      channel_->thread().endAudio(job_);
    } else {
      job_->audioEnded = true;
    }
  }

  std::unique_ptr<RecognitionTask> start(ResultHandler handler) {
    job_->handler = std::move(handler);
    channel_->start(job_);
    isStarted_ = true;
    return std::make_unique<Task>(channel_, job_);
  }

 private:
  const std::shared_ptr<JobChannel> channel_;
  const std::shared_ptr<RecognitionJob> job_ = std::make_shared<RecognitionJob>();
  bool isStarted_ = false;  // from then on the engine's thread owns the job
  bool isEnded_ = false;
};

}  // namespace

std::shared_ptr<RecognitionRequest> makeJobRequest(std::shared_ptr<JobChannel> channel,
                                                   RecognitionOptions options) {
  return std::make_shared<Request>(std::move(channel), std::move(options));
}

std::unique_ptr<RecognitionTask> startTask(RecognitionRequest& request, ResultHandler handler) {
  return static_cast<Request&>(request).start(std::move(handler));
}

}  // namespace palaver
