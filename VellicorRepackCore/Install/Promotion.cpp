#include "VellicorRepackCore/Install/Promotion.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "VellicorArtifact/ArtifactMetadata.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/Removability.h"

namespace vellicor {

namespace {

using EntryKind = Posix::EntryKind;

std::array<std::string, 2> trialDirectories(const RemoteInstallPaths& paths) {
  return {paths.finalDirectory + ".exchange-a", paths.finalDirectory + ".exchange-b"};
}

/// Removes the trial's directories when the scope ends.
class TrialCleanup {
 public:
  explicit TrialCleanup(const RemoteInstallPaths& paths) : paths_(paths) {}
  ~TrialCleanup() { Promotion::clearTrial(paths_); }
  TrialCleanup(const TrialCleanup&) = delete;
  TrialCleanup& operator=(const TrialCleanup&) = delete;

 private:
  const RemoteInstallPaths& paths_;
};

/// An empty directory is nobody's loss; of any other the manifest tells an artifact from somebody's files.
void requireArtifact(const std::string& directory) {
  const bool hasManifest =
      Posix::entryKind(joinPath(directory, MorlenFormatV1::manifestPath)) == EntryKind::regular;
  if (hasManifest || Posix::listDirectory(directory).empty()) return;
  throw RepackError(InstallPathUnsafe{.path = directory, .detail = "not an artifact; move it away first"});
}

void requireRemovable(const std::string& directory) {
  const std::optional<std::string> obstacle = Removability::firstObstacle(directory);
  if (!obstacle) return;
  throw RepackError(InstallPathUnsafe{
      .path = *obstacle, .detail = "it keeps the old artifact from being removed; move that away first"});
}

void tryExchange(const RemoteInstallPaths& paths) {
  const std::array<std::string, 2> directories = trialDirectories(paths);
  Promotion::clearTrial(paths);
  for (const std::string& directory : directories) {
    const EntryKind kind = Posix::entryKind(directory);
    if (kind == EntryKind::absent) continue;
    throw RepackError(InstallPathUnsafe{.path = directory,
                                        .detail = fmt::format("unexpected {} entry", Posix::name(kind))});
  }
  const TrialCleanup cleanup(paths);
  for (const std::string& directory : directories) Posix::mkdir(directory);
  try {
    Posix::renameSwap(directories.front(), directories.back());
  } catch (const RepackError& error) {
    const auto* unsupported = error.as<PromotionUnsupported>();
    if (unsupported == nullptr) throw;
    throw RepackError(
        PromotionUnsupported{.path = paths.finalDirectory, .errnoValue = unsupported->errnoValue});
  }
}

void requireNoMountPoint(const std::string& directory) {
  if (Posix::isMountPoint(directory))
    throw RepackError(PromotionUnsupported{.path = directory, .errnoValue = EBUSY});
}

/// A checkpoint that stays is reported by the next run; the artifact is in place.
void removeCheckpoint(const RemoteInstallPaths& paths) noexcept {
  failureOf([&] {
    Posix::unlink(paths.checkpointFile);
    Posix::fsyncDirectory(paths.parentDirectory);
  });
}

}  // namespace

void Promotion::requireReplaceable(const RemoteInstallPaths& paths) {
  requireArtifact(paths.finalDirectory);
  requireNoMountPoint(paths.finalDirectory);
  requireRemovable(paths.finalDirectory);
  tryExchange(paths);
}

void Promotion::clearTrial(const RemoteInstallPaths& paths) noexcept {
  for (const std::string& directory : trialDirectories(paths)) {
    failureOf([&] { Posix::removeEmptyDirectory(directory); });
  }
}

void Promotion::rename(const RemoteInstallPaths& paths) {
  Posix::rename(paths.partialDirectory, paths.finalDirectory);
  Posix::fsyncDirectory(paths.parentDirectory);
  removeCheckpoint(paths);
}

void Promotion::exchange(const RemoteInstallPaths& paths) {
  // Hours may have passed since this was looked at.
  requireArtifact(paths.finalDirectory);
  requireRemovable(paths.finalDirectory);
  Posix::renameSwap(paths.partialDirectory, paths.finalDirectory);
  removeReplaced(paths);
}

void Promotion::removeReplaced(const RemoteInstallPaths& paths) {
  const std::exception_ptr failure = failureOf([&] { Posix::fsyncDirectory(paths.parentDirectory); });
  // What is at the partial path now is no saved download.
  removeCheckpoint(paths);
  // It stays where the exchange may not last: a power cut may still bring it back.
  if (failure) std::rethrow_exception(failure);
  try {
    Posix::removeTree(paths.partialDirectory);
  } catch (const std::exception& error) {
    throw RepackError(
        InstallPathUnsafe{.path = paths.partialDirectory,
                          .detail = fmt::format(InstallPathUnsafe::oldArtifactStays, error.what())});
  }
}

}  // namespace vellicor
