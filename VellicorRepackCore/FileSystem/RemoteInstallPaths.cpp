#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"

#include <initializer_list>

#include <fmt/format.h>

#include "VellicorFormat/Unicode.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

namespace {

RepackError invalidBasename(const std::string& outputDirectory) {
  return RepackError(InstallPathUnsafe{.path = outputDirectory, .detail = "invalid output basename"});
}

/// The base name in the form in which every file beside the output is named. The receipt spells the path as
/// UTF-8, so a name that is none is refused like any other invalid one.
std::string outputName(const std::string& standardizedOutput, const std::string& outputDirectory) {
  const std::string name = lastPathComponent(standardizedOutput);
  const bool isName = !name.empty() && name != "." && name != ".." && isWellFormedUtf8(name);
  std::string composed = isName ? canonicalComposition(name) : "";
  if (composed.empty() || composed.find('/') != std::string::npos) {
    throw invalidBasename(outputDirectory);
  }
  return composed;
}

void requireKind(const std::string& path, Posix::EntryKind allowed) {
  const Posix::EntryKind kind = Posix::entryKind(path);
  if (kind == Posix::EntryKind::absent || kind == allowed) return;
  throw RepackError(
      InstallPathUnsafe{.path = path, .detail = fmt::format("unexpected {} entry", Posix::name(kind))});
}

}  // namespace

RemoteInstallPaths::RemoteInstallPaths(const std::string& outputDirectory) {
  // Taken against the current directory, no path at all would name that directory itself.
  if (outputDirectory.empty()) throw invalidBasename(outputDirectory);
  const std::string output = standardizedPath(outputDirectory);
  const std::string name = outputName(output, outputDirectory);
  const std::string parent = parentPath(output);
  Posix::mkdirP(parent);

  parentDirectory = Posix::physicalPath(parent);
  finalDirectory = joinPath(parentDirectory, name);
  partialDirectory = finalDirectory + ".partial";
  lockFile = finalDirectory + ".install.lock";
  checkpointFile = finalDirectory + ".resume.json";
  rangeTemporaryFile = joinPath(partialDirectory, ".range.tmp");
  metadataDirectory = joinPath(partialDirectory, ".remote-metadata");
}

void RemoteInstallPaths::validateEntryTypes() const {
  requireKind(finalDirectory, Posix::EntryKind::directory);
  requireKind(partialDirectory, Posix::EntryKind::directory);
  requireKind(checkpointFile, Posix::EntryKind::regular);
  requireKind(lockFile, Posix::EntryKind::regular);
}

}  // namespace vellicor
