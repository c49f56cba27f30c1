#include "apple-stand-ins/helper/PromptOnMainThread.h"

#include <dispatch/dispatch.h>

#include <thread>

namespace palaver {

void PromptOnMainThread::requestAuthorization(std::function<void(AuthorizationStatus)> handler) {
  if (!service_.state().callbacksOnMainThread) return service_.requestAuthorization(std::move(handler));
  service_.requestAuthorization(
      [handler = std::move(handler), caller = std::this_thread::get_id()](AuthorizationStatus status) {
        // The answer arrived inside the call.
        if (std::this_thread::get_id() == caller) return handler(status);
        dispatch_async(dispatch_get_main_queue(), ^{
          handler(status);
        });
      });
}

}  // namespace palaver
