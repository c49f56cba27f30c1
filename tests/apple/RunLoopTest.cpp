// Tests the run loop without this project's code: the behaviour that the macOS main queue relies on.
#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace palaver {
namespace {

// Time-out for failures only.
constexpr CFTimeInterval secondsAtMost = 60;

class RunLoopTest : public testing::Test {
 protected:
  RunLoopTest() {
    // Running a mode without a source returns immediately.
    CFRunLoopSourceContext context{};
    context.perform = [](void*) {};
    source_ = CFRunLoopSourceCreate(nullptr, 0, &context);
    CFRunLoopAddCommonMode(loop_, mode_);
    CFRunLoopAddSource(loop_, source_, kCFRunLoopCommonModes);
  }
  ~RunLoopTest() override {
    CFRunLoopSourceInvalidate(source_);
    CFRelease(source_);
    CFRelease(mode_);
  }

  // Queues an answer on the dispatch main queue from another thread, as a recognizer does. It is queued on
  // return.
  void answer() {
    std::thread([this] {
      dispatch_async(dispatch_get_main_queue(), ^{
        answered_ = true;
      });
    }).join();
  }
  // Runs the default mode until the answer is delivered, up to 20 slices.
  bool hearInSlices() {
    for (int slice = 0; slice < 20 && !answered_; ++slice)
      CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.02, true);
    return answered_;
  }
  void runUntilStopped() { EXPECT_EQ(CFRunLoopRunInMode(mode_, secondsAtMost, false), kCFRunLoopRunStopped); }

  CFRunLoopRef loop_ = CFRunLoopGetMain();
  CFStringRef mode_ = CFStringCreateWithCString(nullptr, "RunLoopTest", kCFStringEncodingUTF8);
  CFRunLoopSourceRef source_ = nullptr;
  bool answered_ = false;
};

TEST_F(RunLoopTest, PrivateModeBlockServesMainQueueInDefaultModeSlices) {
  __block bool heard = false;
  CFRunLoopPerformBlock(loop_, mode_, ^{
    answer();
    heard = hearInSlices();
    CFRunLoopStop(loop_);
  });
  runUntilStopped();
  EXPECT_TRUE(heard);
}

TEST_F(RunLoopTest, MainQueueBlockDoesNotServeMainQueue) {
  __block bool heard = true;
  dispatch_async(dispatch_get_main_queue(), ^{
    answer();
    heard = hearInSlices();
    CFRunLoopStop(loop_);
  });
  runUntilStopped();
  EXPECT_FALSE(heard);
  EXPECT_TRUE(hearInSlices());  // after the block
}

}  // namespace
}  // namespace palaver
