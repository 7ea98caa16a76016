#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vellicor {

/// How much of a trial is run: a short form within a test run's time, or all of it.
struct TrialOptions {
  bool full = false;
  /// The short form of a slow build takes so many times fewer points.
  std::uint64_t thinning = 1;
  /// Decides what is chosen at random.
  std::uint64_t seed = 1;
};

/// The counts of a trial and the broken promises. Safe from any thread.
class TrialReport {
 public:
  void count(const std::string& figure, std::uint64_t number = 1);
  void fail(std::string what);

  std::map<std::string, std::uint64_t> figures() const;
  std::vector<std::string> failures() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> figures_;
  std::vector<std::string> failures_;
};

using Trial = std::function<void(const TrialOptions&, TrialReport&)>;

/// Runs `work(worker, item)` for every item below `count` on as many threads as the machine has processors;
/// `worker` tells the threads apart, from 0. What `work` throws becomes a failure of the report.
void forEachInParallel(std::size_t count, TrialReport& report,
                       const std::function<void(std::size_t worker, std::size_t item)>& work);

/// The number of threads that `forEachInParallel` runs.
std::size_t workerCount();

}  // namespace vellicor
