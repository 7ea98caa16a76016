#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "VellicorLab/ChildProcess.h"

namespace vellicor {

/// One file call of a program under trial. In the record each is a line of fields with tabs between them, in
/// the order of these members, and after the line the bytes that were written, where they are kept.
struct FileCall {
  /// From 1, in the order of the calls; 0 marks what is no call.
  std::uint64_t number = 0;
  /// The kind of call: "open", "stat", "statvfs", "pread", "pwrite", "ftruncate", "fsync", "flock", "mkdir",
  /// "unlink", "remove" (a file or a directory), "rename", "exchange"; or "leak", a descriptor that was open
  /// when the program ended.
  std::string name{};
  /// "ok", the errno, or the action at the point.
  std::string result{};
  std::string path{};
  /// The second path of a rename or an exchange.
  std::string otherPath{};
  /// The length of a transfer, or the new size of a truncation.
  std::int64_t offset = 0;
  std::uint64_t length = 0;
  /// The flags of an open.
  int flags = 0;
  std::string data{};
};

/// The instructions for the preloaded library.
struct FileCallPlan {
  enum class Processors { one, all };

  /// Calls on entries below this directory count.
  std::string root{};
  /// The call to act at; 0 for none.
  std::uint64_t point = 0;
  /// "die", "tear", "short", "stop" or an errno.
  std::string action{};
  /// Called while the process is stopped before the call.
  std::function<void()> whileStopped{};
  bool keepsData = false;
  /// On one processor the program works without helpers, and its calls have the same numbers in every run.
  Processors processors = Processors::one;
};

struct FileCallRun {
  ProcessResult result;
  std::vector<FileCall> calls;
};

/// Runs a command with its file calls counted and recorded. `recordPath` is overwritten.
FileCallRun runWithFileCalls(const std::vector<std::string>& command, const FileCallPlan& plan,
                             const std::string& recordPath);

/// The calls that a record holds; throws `std::runtime_error` for one that is damaged.
std::vector<FileCall> parseFileCalls(const std::string& record);

}  // namespace vellicor
