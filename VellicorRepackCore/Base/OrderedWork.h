#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/JoiningThread.h"

namespace vellicor {

/// The exception that the operation throws, to be thrown again elsewhere; nothing when it succeeds.
template <typename Operation>
std::exception_ptr failureOf(Operation&& operation) {
  try {
    operation();
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

/// Runs items of work side by side and hands them over one by one, in their order, so that whoever takes them
/// sees what running one after another would have shown: the first failure in order, and nothing of the items
/// behind it. Owned by one thread, which calls `next` once for each item and stops at the first that throws.
///
/// Items begin in their order, at most `lookAheadPerWorker` for each worker ahead of the one that is handed
/// over. A single worker is the calling thread itself, and so is the only one where no thread can be had.
class OrderedWork {
 public:
  /// Does an item, and should throw soon when a stop is asked for. What it leaves for the item is the
  /// caller's to read as soon as `next` has come to it, and has to outlive this object.
  using Work = std::function<void(std::size_t item, const CancellationToken& stop)>;

  static constexpr std::size_t maximumWorkers = 8;
  /// So that one item as long as dozens of others leaves nobody idle.
  static constexpr std::size_t lookAheadPerWorker = 32;

  /// Begins with items 0 to `count` - 1 on `workers` threads, but no more than `maximumWorkers` or than there
  /// are items. Cancelling `cancellation` stops the work.
  OrderedWork(std::size_t count, std::size_t workers, const CancellationToken& cancellation, Work work);
  /// Stops what is still running and waits for its end.
  ~OrderedWork();
  OrderedWork(const OrderedWork&) = delete;
  OrderedWork& operator=(const OrderedWork&) = delete;

  /// Returns when the next item is done; throws what it threw, or `CancellationError` when it had not begun
  /// before a stop.
  void next();

 private:
  struct Item {
    bool isDone = false;
    std::exception_ptr failure;
  };

  void stop();
  void startThreads(std::size_t workers);
  void runItems();
  void waitFor(std::size_t item);

  const Work work_;
  CancellationSource stop_;

  std::mutex mutex_;
  std::condition_variable itemDone_;
  std::condition_variable roomMade_;
  std::vector<Item> items_;
  /// Items from here on are not begun: all of them at first, none after a failure later.
  std::size_t end_;
  std::size_t lookAhead_;
  std::size_t begun_ = 0;
  std::size_t handedOver_ = 0;

  const CancellationCallback forwarding_;
  std::vector<JoiningThread> threads_;
};

}  // namespace vellicor
