#include "VellicorInspect/OutputFile.h"

#include <fmt/format.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Paths.h"
#include "VellicorRepackCore/Base/Random.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorTerminal/Signals.h"

namespace vellicor {

namespace {

std::string physicalTarget(const std::string& path) {
  const std::string absolute = standardizedPath(path);
  return joinPath(Posix::physicalPath(parentPath(absolute)), lastPathComponent(absolute));
}

void throwIfSignalled() {
  if (Signals::hasCome()) throw CancellationError();
}

}  // namespace

OutputFile::OutputFile(const std::string& path, Existing existing)
    : path_(physicalTarget(path)),
      existing_(existing),
      temporary_(joinPath(parentPath(path_), fmt::format(".vellicor-{}.tmp", randomUuid()))) {
  requireFree();
  file_ = Posix::openCreateExclusive(temporary_.path(), Posix::FileMode::shared);
}

void OutputFile::append(std::span<const std::byte> bytes) {
  throwIfSignalled();
  Posix::pwriteAll(file_.get(), temporary_.path(), bytes.data(), static_cast<std::int64_t>(bytes.size()),
                   size_);
  size_ += bytes.size();
}

void OutputFile::finish() {
  Posix::fsync(file_.get(), temporary_.path());
  file_.reset();
  // Another program may have written the file meanwhile.
  requireFree();
  throwIfSignalled();
  Posix::rename(temporary_.path(), path_);
  temporary_.keep();
}

void OutputFile::requireFree() const {
  const Posix::EntryKind kind = Posix::entryKind(path_);
  if (kind == Posix::EntryKind::absent) return;
  if (kind != Posix::EntryKind::regular) {
    throw RepackError(
        ConfigurationInvalid{fmt::format("{} is not a regular file ({})", path_, Posix::name(kind))});
  }
  if (existing_ == Existing::refuse) {
    throw RepackError(ConfigurationInvalid{fmt::format("{} exists; --force replaces it", path_)});
  }
}

}  // namespace vellicor
