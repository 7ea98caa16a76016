#include "VellicorRepackCore/Base/Cancellation.h"

#include <condition_variable>
#include <mutex>

#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

void throwIfCancelled(const std::stop_token& stop) {
  if (stop.stop_requested()) throw CancellationError();
}

void sleepUnlessCancelled(std::chrono::nanoseconds duration, const std::stop_token& stop) {
  std::mutex mutex;
  std::condition_variable_any wakeUp;
  std::unique_lock lock(mutex);
  wakeUp.wait_for(lock, stop, duration, [] { return false; });
  throwIfCancelled(stop);
}

}  // namespace vellicor
