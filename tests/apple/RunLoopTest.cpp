// The run loop as it is, without any code of ours: what the main queue of macOS is built upon.
#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace palaver {
namespace {

// A failure bound; nothing waits so long when all is well.
constexpr CFTimeInterval secondsAtMost = 60;

class RunLoopTest : public testing::Test {
 protected:
  RunLoopTest() {
    // A mode needs a source, or running it ends at once.
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

  // Another thread's answer on the dispatch main queue, as a recognizer gives it; it has been queued on
  // return.
  void answer() {
    std::thread([this] {
      dispatch_async(dispatch_get_main_queue(), ^{
        answered_ = true;
      });
    }).join();
  }
  // Runs the default mode until the answer is heard, or it has shown that it handles nothing.
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

TEST_F(RunLoopTest, ABlockOfAModeOfOurOwnHearsTheMainQueueInSlicesOfTheDefaultMode) {
  __block bool heard = false;
  CFRunLoopPerformBlock(loop_, mode_, ^{
    answer();
    heard = hearInSlices();
    CFRunLoopStop(loop_);
  });
  runUntilStopped();
  EXPECT_TRUE(heard);
}

TEST_F(RunLoopTest, ABlockOfTheMainQueueHearsNoOther) {
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
