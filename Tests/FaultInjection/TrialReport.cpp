#include "Tests/FaultInjection/TrialReport.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/JoiningThread.h"

namespace vellicor {

void TrialReport::count(const std::string& figure, std::uint64_t number) {
  const std::lock_guard lock(mutex_);
  figures_[figure] += number;
}

void TrialReport::fail(std::string what) {
  const std::lock_guard lock(mutex_);
  failures_.push_back(std::move(what));
}

std::map<std::string, std::uint64_t> TrialReport::figures() const {
  const std::lock_guard lock(mutex_);
  return figures_;
}

std::vector<std::string> TrialReport::failures() const {
  const std::lock_guard lock(mutex_);
  return failures_;
}

std::size_t workerCount() { return std::max(1U, std::thread::hardware_concurrency()); }

void forEachInParallel(std::size_t count, TrialReport& report,
                       const std::function<void(std::size_t, std::size_t)>& work) {
  std::atomic<std::size_t> next = 0;
  const auto runItems = [&](std::size_t worker) {
    for (std::size_t item; (item = next++) < count;) {
      try {
        work(worker, item);
      } catch (const std::exception& error) {
        report.fail(fmt::format("item {}: {}", item, error.what()));
      }
    }
  };
  std::vector<JoiningThread> threads;
  for (std::size_t worker = 0; worker < workerCount(); ++worker) {
    threads.emplace_back([&runItems, worker] { runItems(worker); });
  }
}

}  // namespace vellicor
