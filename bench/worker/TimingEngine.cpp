#include "bench/worker/TimingEngine.h"

#include <cstdio>
#include <deque>
#include <utility>

#include "bench/Usage.h"

namespace palaver::bench {

class TimingEngine::Queue {
 public:
  struct Item {
    std::shared_ptr<ResultHandler> handler;
    std::shared_ptr<const PCMBuffer> buffer;  // null: the audio has ended
  };

  void push(Item item) {
    {
      const std::lock_guard guard(lock_);
      items_.push_back(std::move(item));
    }
    pushed_.notify_one();
  }
  void stop() {
    {
      const std::lock_guard guard(lock_);
      isStopping_ = true;
    }
    pushed_.notify_one();
  }
  void run() {
    std::unique_lock guard(lock_);
    for (;;) {
      pushed_.wait(guard, [this] { return isStopping_ || !items_.empty(); });
      if (isStopping_) return;
      auto item = std::move(items_.front());
      items_.pop_front();
      guard.unlock();
      answer(item);
      item = {};
      guard.lock();
    }
  }

 private:
  static void answer(const Item& item) {
    if (!item.buffer) return (*item.handler)(std::nullopt, PlatformError("bench", 1110, "No speech"));
    char text[32];
    std::snprintf(text, sizeof text, "%.9f", monotonicSeconds());
    (*item.handler)(RecognitionResult{text, {}, false}, std::nullopt);
  }

  std::mutex lock_;
  std::condition_variable pushed_;
  std::deque<Item> items_;
  bool isStopping_ = false;
};

namespace {

class Task final : public RecognitionTask {
 public:
  void cancel() override {}
};

}  // namespace

TimingEngine::TimingEngine()
    : queue_(std::make_shared<Queue>()), thread_([queue = queue_] { queue->run(); }) {}

TimingEngine::~TimingEngine() {
  queue_->stop();
  thread_.join();
}

std::unique_ptr<SpeechRecognizer> TimingEngine::makeRecognizer(std::string_view /*locale*/) {
  class Request final : public RecognitionRequest {
   public:
    explicit Request(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}
    void append(std::shared_ptr<const PCMBuffer> buffer) override {
      queue_->push({handler, std::move(buffer)});
    }
    void endAudio() override { queue_->push({handler, nullptr}); }

    const std::shared_ptr<ResultHandler> handler = std::make_shared<ResultHandler>();

   private:
    const std::shared_ptr<Queue> queue_;
  };
  class Recognizer final : public SpeechRecognizer {
   public:
    explicit Recognizer(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions /*options*/) override {
      return std::make_shared<Request>(queue_);
    }
    std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                     ResultHandler handler) override {
      *static_cast<Request&>(*request).handler = std::move(handler);
      return std::make_unique<Task>();
    }

   private:
    const std::shared_ptr<Queue> queue_;
  };
  return std::make_unique<Recognizer>(queue_);
}

}  // namespace palaver::bench
