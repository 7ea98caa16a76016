#pragma once

#include <functional>
#include <thread>
#include <utility>

namespace vellicor {

/// A thread that is joined when its owner goes. The standard library on macOS lacks std::jthread.
class JoiningThread {
 public:
  JoiningThread() = default;
  /// Throws `std::system_error` when the system has no thread to spare.
  explicit JoiningThread(std::function<void()> function) : thread_(std::move(function)) {}
  JoiningThread(JoiningThread&&) noexcept = default;
  JoiningThread& operator=(JoiningThread&& other) noexcept {
    join();
    thread_ = std::move(other.thread_);
    return *this;
  }
  ~JoiningThread() { join(); }

  void join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::thread thread_;
};

}  // namespace vellicor
