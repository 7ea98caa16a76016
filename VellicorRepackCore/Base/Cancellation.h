#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace vellicor {

/// The state that a source shares with its tokens and callbacks.
struct CancellationState;

/// Asks whether its source was cancelled. Cheap to copy, safe from any thread, and valid after its source is
/// gone. The default token is never cancelled.
///
/// The standard library's stop tokens do the same, but the one on macOS lacks them.
class CancellationToken {
 public:
  CancellationToken() = default;

  bool isCancelled() const noexcept;

 private:
  friend class CancellationSource;
  friend class CancellationCallback;
  explicit CancellationToken(std::shared_ptr<CancellationState> state) : state_(std::move(state)) {}

  std::shared_ptr<CancellationState> state_;
};

/// Cancels its tokens, once and for good. Safe from any thread.
class CancellationSource {
 public:
  CancellationSource();

  CancellationToken token() const { return CancellationToken(state_); }
  bool isCancelled() const noexcept { return token().isCancelled(); }
  /// Runs the callbacks that are registered, on this thread, before it returns. Does nothing the second time.
  void cancel();

 private:
  std::shared_ptr<CancellationState> state_;
};

/// Runs a function when the token is cancelled: on the cancelling thread, or at once on this one when that
/// has happened already. The function must not throw, nor cancel, create or destroy callbacks of the same
/// source. When the destructor returns, the function neither runs nor will run.
class CancellationCallback {
 public:
  CancellationCallback(const CancellationToken& token, std::function<void()> function);
  ~CancellationCallback();
  CancellationCallback(const CancellationCallback&) = delete;
  CancellationCallback& operator=(const CancellationCallback&) = delete;

 private:
  friend class CancellationSource;

  std::function<void()> function_;
  std::shared_ptr<CancellationState> state_;
};

/// Throws `CancellationError` when the token is cancelled.
void throwIfCancelled(const CancellationToken& token);

/// Waits for the duration; throws `CancellationError` as soon as the token is cancelled.
void sleepUnlessCancelled(std::chrono::nanoseconds duration, const CancellationToken& token);

}  // namespace vellicor
