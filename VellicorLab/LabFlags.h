#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace vellicor {

/// Which made-up checkpoint.
struct CheckpointFlags {
  std::string scale = "miniature";
  std::optional<std::uint64_t> seed;
};

struct HubFlags {
  CheckpointFlags checkpoint;
  std::string root;
  std::string caFile;
  std::string logFile;
  std::optional<std::string> token;
  std::optional<std::uint16_t> port;
  std::optional<std::uint64_t> bytesPerSecond;
};

struct InstallFlags {
  std::optional<std::string> baseURL;
  std::optional<std::string> caFile;
  std::optional<std::string> repo;
  std::optional<std::string> revision;
  std::string output;
  std::optional<std::string> token;
  bool requireKnownSource = false;
  std::optional<std::string> audit;
  std::optional<std::int64_t> rangeChunkBytes;
  std::optional<std::int64_t> writeTileBytes;
  std::optional<std::uint64_t> minFreeReserveBytes;
  std::optional<std::int64_t> retryAttempts;
  std::optional<std::uint64_t> retryBaseDelayNs;
  bool overwrite = false;
  bool resume = false;
  bool dryRun = false;
};

struct WriteFlags {
  CheckpointFlags checkpoint;
  std::string output;
};

struct CheckFlags {
  CheckpointFlags checkpoint;
  std::string artifact;
};

/// Add the lab's commands to its grammar; `flags` outlives the parsing.
CLI::App* addHub(CLI::App& app, HubFlags& flags);
CLI::App* addInstall(CLI::App& app, InstallFlags& flags);
CLI::App* addWrite(CLI::App& app, WriteFlags& flags);
CLI::App* addCheck(CLI::App& app, CheckFlags& flags);

}  // namespace vellicor
