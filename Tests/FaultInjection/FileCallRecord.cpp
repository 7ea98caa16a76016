#include "Tests/FaultInjection/FileCallRecord.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <sched.h>
#include <unistd.h>

namespace vellicor {

namespace {

constexpr std::size_t fieldCount = 8;

std::array<std::string, fieldCount> fieldsOf(const std::string& line) {
  std::array<std::string, fieldCount> fields;
  std::size_t start = 0;
  for (std::size_t i = 0; i < fieldCount; ++i) {
    const std::size_t end = i + 1 == fieldCount ? line.size() : line.find('\t', start);
    if (end == std::string::npos) throw std::runtime_error("damaged record of file calls: " + line);
    fields[i] = line.substr(start, end - start);
    start = end + 1;
  }
  return fields;
}

/// Confines the calling process to the processor that it is on.
void stayOnOneProcessor() {
  const int processor = ::sched_getcpu();
  cpu_set_t only;
  CPU_ZERO(&only);
  if (processor >= 0) CPU_SET(static_cast<std::size_t>(processor), &only);
  if (::sched_setaffinity(0, sizeof only, &only) != 0) ::_exit(126);
}

}  // namespace

std::vector<FileCall> parseFileCalls(const std::string& record) {
  std::vector<FileCall> calls;
  const bool keepsData = record.starts_with("data\n");
  for (std::size_t at = keepsData ? record.find('\n') + 1 : 0; at < record.size();) {
    const std::size_t end = record.find('\n', at);
    if (end == std::string::npos) throw std::runtime_error("damaged record of file calls: no end of line");
    const auto fields = fieldsOf(record.substr(at, end - at));
    at = end + 1;
    FileCall call{.number = std::stoull(fields[0]),
                  .name = fields[1],
                  .result = fields[2],
                  .path = fields[3],
                  .otherPath = fields[4],
                  .offset = std::stoll(fields[5]),
                  .length = std::stoull(fields[6]),
                  .flags = std::stoi(fields[7])};
    if (keepsData && call.name == "pwrite") {
      call.data = record.substr(at, call.length);
      at += call.length;
    }
    calls.push_back(std::move(call));
  }
  return calls;
}

FileCallRun runWithFileCalls(const std::vector<std::string>& command, const FileCallPlan& plan,
                             const std::string& recordPath) {
  writeFile(recordPath, plan.keepsData ? "data\n" : "");
  std::vector<std::pair<std::string, std::string>> environment = {
      {"LD_PRELOAD", VELLICOR_FILE_CALLS},
      // The sanitizers' runtime would rather be the first library.
      {"ASAN_OPTIONS", "verify_asan_link_order=0"},
      {"VELLICOR_CALLS_ROOT", plan.root},
      {"VELLICOR_CALLS_RECORD", recordPath},
      {"VELLICOR_CALLS_POINT", fmt::to_string(plan.point)},
      {"VELLICOR_CALLS_ACTION", plan.action}};
  if (plan.keepsData) environment.emplace_back("VELLICOR_CALLS_DATA", "1");
  const bool isConfined = plan.processors == FileCallPlan::Processors::one;
  ChildProcess process(
      command, {.environment = environment, .beforeStart = isConfined ? stayOnOneProcessor : nullptr});
  if (plan.whileStopped && process.waitForStop()) {
    plan.whileStopped();
    process.kill(SIGCONT);
  }
  ProcessResult result = process.wait();
  return {.result = std::move(result), .calls = parseFileCalls(readFile(recordPath))};
}

}  // namespace vellicor
