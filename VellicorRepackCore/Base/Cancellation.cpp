#include "VellicorRepackCore/Base/Cancellation.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <utility>
#include <vector>

#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

struct CancellationState {
  std::atomic<bool> isCancelled = false;
  /// Held while callbacks run, so that the destructor of one waits for its end.
  std::mutex mutex;
  std::vector<CancellationCallback*> callbacks;
};

bool CancellationToken::isCancelled() const noexcept { return state_ && state_->isCancelled; }

CancellationSource::CancellationSource() : state_(std::make_shared<CancellationState>()) {}

void CancellationSource::cancel() {
  const std::lock_guard lock(state_->mutex);
  if (state_->isCancelled.exchange(true)) return;
  for (const CancellationCallback* callback : state_->callbacks) callback->function_();
}

CancellationCallback::CancellationCallback(const CancellationToken& token, std::function<void()> function)
    : function_(std::move(function)), state_(token.state_) {
  if (!state_) return;
  const std::lock_guard lock(state_->mutex);
  state_->callbacks.push_back(this);
  if (state_->isCancelled) function_();
}

CancellationCallback::~CancellationCallback() {
  if (!state_) return;
  const std::lock_guard lock(state_->mutex);
  std::erase(state_->callbacks, this);
}

void throwIfCancelled(const CancellationToken& token) {
  if (token.isCancelled()) throw CancellationError();
}

void sleepUnlessCancelled(std::chrono::nanoseconds duration, const CancellationToken& token) {
  std::mutex mutex;
  std::condition_variable wakeUp;
  const CancellationCallback wake(token, [&] {
    const std::lock_guard lock(mutex);
    wakeUp.notify_all();
  });
  std::unique_lock lock(mutex);
  wakeUp.wait_for(lock, duration, [&] { return token.isCancelled(); });
  lock.unlock();
  throwIfCancelled(token);
}

}  // namespace vellicor
