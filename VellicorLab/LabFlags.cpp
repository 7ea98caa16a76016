#include "VellicorLab/LabFlags.h"

#include <charconv>
#include <concepts>
#include <system_error>

#include <fmt/format.h>

#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {

namespace {

/// A decimal number flag over the whole range of its type. A value that the type cannot hold is refused, a
/// value that makes no sense is left to whoever uses it.
template <std::integral Number>
void addNumber(CLI::App& command, const std::string& name, std::optional<Number>& value,
               const std::string& help) {
  const auto parse = [&value, name](const std::string& text) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value.emplace());
    if (error != std::errc() || stop != end) throw CLI::ConversionError(text, name);
  };
  command.add_option_function<std::string>(name, parse, help)->type_name("N");
}

void addCheckpoint(CLI::App& command, CheckpointFlags& flags) {
  command.add_option("--scale", flags.scale, "Size of the made-up checkpoint")
      ->check(CLI::IsMember({"miniature", "medium", "full"}))
      ->capture_default_str();
  addNumber(command, "--seed", flags.seed, "Seed of the made-up payload [1]");
}

std::string refusalOfURL(const std::string& text) {
  return RemoteUrl::parse(text) ? "" : fmt::format("not an absolute URL: {}", text);
}

}  // namespace

CLI::App* addHub(CLI::App& app, HubFlags& flags) {
  CLI::App* hub = app.add_subcommand("hub", "Serve a checkpoint over HTTPS until standard input closes");
  addCheckpoint(*hub, flags.checkpoint);
  hub->add_option("--root", flags.root, "Serve the files of this folder instead")
      ->check(CLI::ExistingDirectory);
  addNumber(*hub, "--port", flags.port, "Port to listen on [any free one]");
  hub->add_option("--ca-file", flags.caFile, "Where to write the certificate that clients must trust");
  hub->add_option("--token", flags.token, "Refuse requests without this bearer token");
  addNumber(*hub, "--bytes-per-second", flags.bytesPerSecond, "Pace of every body");
  hub->add_option("--log", flags.logFile, "Write one JSON line per request to this file");
  return hub;
}

CLI::App* addInstall(CLI::App& app, InstallFlags& flags) {
  CLI::App* install = app.add_subcommand("install", "Install a checkpoint with every setting as a flag");
  // As with the installer itself, the last of several values counts.
  install->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  install->add_option("--base-url", flags.baseURL, "The hub")->check(CLI::Validator(refusalOfURL, "URL"));
  install->add_option("--ca-file", flags.caFile, "Certificates to trust instead of the system's");
  install->add_option("--repo", flags.repo, "Repository, owner/name");
  install->add_option("--revision", flags.revision, "Branch, tag or commit");
  install->add_option("--output", flags.output, "The artifact directory")->required();
  install->add_option("--token", flags.token, "Bearer token [the environment's HF_TOKEN]");
  install->add_flag("--require-known-source", flags.requireKnownSource, "Refuse an unknown shard index");
  install->add_option("--audit", flags.audit, "Where to write the audit document");
  addNumber(*install, "--range-chunk-bytes", flags.rangeChunkBytes, "Largest range request");
  addNumber(*install, "--write-tile-bytes", flags.writeTileBytes, "Tile of the copy");
  addNumber(*install, "--min-free-reserve-bytes", flags.minFreeReserveBytes, "Disk space to leave free");
  addNumber(*install, "--retry-attempts", flags.retryAttempts, "Attempts per remote operation");
  addNumber(*install, "--retry-base-delay-ns", flags.retryBaseDelayNs, "First retry delay");
  install->add_flag("--overwrite", flags.overwrite, "Replace an existing artifact");
  install->add_flag("--resume", flags.resume, "Continue a saved download");
  install->add_flag("--dry-run", flags.dryRun, "Stop after the space check");
  return install;
}

CLI::App* addWrite(CLI::App& app, WriteFlags& flags) {
  CLI::App* write = app.add_subcommand("write", "Write a checkpoint's files, for another server to serve");
  addCheckpoint(*write, flags.checkpoint);
  write->add_option("--output", flags.output, "The folder")->required();
  return write;
}

CLI::App* addCheck(CLI::App& app, CheckFlags& flags) {
  CLI::App* check = app.add_subcommand("check", "Compare an installed artifact with what it must be");
  addCheckpoint(*check, flags.checkpoint);
  check->add_option("ARTIFACT", flags.artifact, "The artifact directory")
      ->required()
      ->check(CLI::ExistingDirectory);
  return check;
}

}  // namespace vellicor
