#include "worker/engine/EngineThread.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace palaver {

// Outlives the EngineThread when that is destroyed on the thread itself.
class EngineThread::Loop {
 public:
  explicit Loop(std::unique_ptr<Work> work) : work_(std::move(work)) {}

  void post(UniqueFunction<void()> message) {
    {
      const std::lock_guard guard(lock_);
      messages_.push_back(std::move(message));
    }
    posted_.notify_one();
  }

  void stop() {
    isStopping_ = true;
    post([] {});
  }

  void run() {
    work_->begin();
    while (!isStopping_) {
      receive();
      if (!isStopping_ && work_->isDue()) work_->step();
    }
    work_.reset();
  }

  std::thread thread;

 private:
  // Waits for messages unless there is work, then handles all that have arrived.
  void receive() {
    std::vector<UniqueFunction<void()>> received;
    {
      std::unique_lock guard(lock_);
      posted_.wait(guard, [this] { return !messages_.empty() || work_->isDue(); });
      std::swap(received, messages_);
    }
    for (auto& message : received) message();
  }

  std::unique_ptr<Work> work_;  // belongs to the thread
  std::mutex lock_;
  std::condition_variable posted_;
  std::vector<UniqueFunction<void()>> messages_;
  std::atomic<bool> isStopping_ = false;
};

EngineThread::EngineThread(std::unique_ptr<Work> work) : loop_(std::make_shared<Loop>(std::move(work))) {
  loop_->thread = std::thread([loop = loop_] { loop->run(); });
}

EngineThread::~EngineThread() {
  loop_->stop();
  // A handler may own the last reference to a recognizer, and thereby to this thread.
  if (loop_->thread.get_id() == std::this_thread::get_id()) {
    loop_->thread.detach();
  } else {
    loop_->thread.join();
  }
}

void EngineThread::post(UniqueFunction<void()> message) {
  loop_->post(std::move(message));
}

void EngineThread::append(std::shared_ptr<RecognitionJob> job, std::shared_ptr<const PCMBuffer> buffer) {
  post([job = std::move(job), buffer = std::move(buffer)]() mutable {
    if (!job->isCancelled && !job->audioEnded && job->handler) job->audio.push_back(std::move(buffer));
  });
}

void EngineThread::endAudio(std::shared_ptr<RecognitionJob> job) {
  post([job = std::move(job)] { job->audioEnded = true; });
}

void EngineThread::cancel(const std::shared_ptr<RecognitionJob>& job) {
  job->isCancelled = true;
  post([] {});
}

}  // namespace palaver
