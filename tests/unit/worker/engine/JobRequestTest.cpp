#include "worker/engine/JobRequest.h"

#include <gtest/gtest.h>

#include <system_error>
#include <utility>

namespace palaver {
namespace {

// A channel of a machine that has no thread left.
class ChannelWithoutThread final : public JobChannel {
 public:
  void start(std::shared_ptr<RecognitionJob> /*job*/) override { throw noThread(); }
  EngineThread& thread() override { throw noThread(); }

 private:
  static std::system_error noThread() {
    return std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  }
};

TEST(JobRequest, RequestWhoseTaskDidNotStartIsDestroyedWithoutThread) {
  auto request = makeJobRequest(std::make_shared<ChannelWithoutThread>(), {});
  EXPECT_THROW(startTask(*request, [](auto, auto) {}), std::system_error);
  request.reset();
}

}  // namespace
}  // namespace palaver
