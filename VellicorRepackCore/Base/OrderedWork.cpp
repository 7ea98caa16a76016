#include "VellicorRepackCore/Base/OrderedWork.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

OrderedWork::OrderedWork(std::size_t count, std::size_t workers, const CancellationToken& cancellation,
                         Work work)
    : work_(std::move(work)),
      items_(count),
      end_(count),
      lookAhead_(lookAheadPerWorker),
      forwarding_(cancellation, [this] { stop(); }) {
  startThreads(std::min({workers, count, maximumWorkers}));
}

OrderedWork::~OrderedWork() {
  stop();
  threads_.clear();
}

void OrderedWork::stop() {
  stop_.cancel();
  const std::lock_guard lock(mutex_);
  itemDone_.notify_all();
  roomMade_.notify_all();
}

void OrderedWork::startThreads(std::size_t workers) {
  if (workers < 2) return;
  lookAhead_ = workers * lookAheadPerWorker;
  threads_.reserve(workers);
  try {
    while (threads_.size() < workers) threads_.emplace_back([this] { runItems(); });
  } catch (const std::exception&) {
    // The system has no thread to spare, or no memory for one: those that it gave will do.
    return;
  }
}

void OrderedWork::runItems() {
  const CancellationToken stop = stop_.token();
  const auto mayGoOn = [&] {
    return stop.isCancelled() || begun_ >= end_ || begun_ - handedOver_ < lookAhead_;
  };
  std::unique_lock lock(mutex_);
  for (;;) {
    roomMade_.wait(lock, mayGoOn);
    if (stop.isCancelled() || begun_ >= end_) return;
    const std::size_t item = begun_++;
    lock.unlock();
    std::exception_ptr failure = failureOf([&] { work_(item, stop); });
    lock.lock();
    if (failure) end_ = std::min(end_, item);
    items_[item] = {.isDone = true, .failure = std::move(failure)};
    itemDone_.notify_one();
  }
}

void OrderedWork::waitFor(std::size_t item) {
  std::unique_lock lock(mutex_);
  const auto isDone = [&] { return items_[item].isDone; };
  itemDone_.wait(lock, [&] { return stop_.isCancelled() || isDone(); });
  if (item >= begun_) throw CancellationError();
  // One that has begun is still at work on what is the caller's.
  itemDone_.wait(lock, isDone);
  ++handedOver_;
  roomMade_.notify_one();
  if (items_[item].failure) std::rethrow_exception(std::exchange(items_[item].failure, nullptr));
}

void OrderedWork::next() {
  if (!threads_.empty()) return waitFor(handedOver_);
  throwIfCancelled(stop_.token());
  work_(handedOver_++, stop_.token());
}

}  // namespace vellicor
