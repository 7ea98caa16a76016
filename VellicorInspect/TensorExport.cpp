#include "VellicorInspect/TensorExport.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/BoundedScratch.h"

namespace vellicor {

namespace {

constexpr std::size_t pieceBytes = 1048576;

[[noreturn]] void refuse(std::string detail) { throw RepackError(ConfigurationInvalid{std::move(detail)}); }

TensorBytes allOf(const StoredTensor& tensor) {
  TensorBytes bytes{&tensor, {}, tensor.shape, tensor.totalBytes()};
  for (const ExpertPlace& place : tensor.experts) bytes.runs.push_back({place.offset, tensor.bytes});
  if (tensor.experts.empty()) bytes.runs.push_back({tensor.offset, tensor.bytes});
  return bytes;
}

void copyRun(const MorlenDirectoryAccess& directory, int fd, const std::string& path, TensorBytes::Run run,
             AlignedBuffer& piece, OutputFile& output) {
  for (std::uint64_t done = 0; done < run.bytes;) {
    const auto part = piece.bytes().first(std::min<std::uint64_t>(piece.size(), run.bytes - done));
    Posix::preadAll(fd, joinPath(directory.rootPath(), path), part.data(),
                    static_cast<std::int64_t>(part.size()), run.offset + done);
    output.append(part);
    done += part.size();
  }
}

}  // namespace

TensorBytes tensorBytes(const std::vector<StoredTensor>& tensors, const std::string& name,
                        std::optional<std::int64_t> expert) {
  std::vector<const StoredTensor*> named;
  for (const StoredTensor& tensor : tensors) {
    if (tensor.name == name) named.push_back(&tensor);
  }
  if (named.empty()) refuse("no tensor is named " + name);
  if (!expert && named.size() > 1)
    refuse(name + " is not the same for all experts: choose one with --expert");
  if (!expert) return allOf(*named.front());
  for (const StoredTensor* tensor : named) {
    const auto place = std::ranges::find(tensor->experts, *expert, &ExpertPlace::expert);
    if (place == tensor->experts.end()) continue;
    return {tensor,
            {{place->offset, tensor->bytes}},
            {tensor->shape.begin() + 1, tensor->shape.end()},
            tensor->bytes};
  }
  refuse(fmt::format("{} has no expert {}", name, *expert));
}

void copyTensor(const Artifact& artifact, const TensorBytes& bytes, OutputFile& output) {
  const std::string& path = bytes.tensor->file;
  const FileDescriptor file = artifact.directory.openFile(path);
  const std::uint64_t size = artifact.directory.fileSize(file.get(), path);
  requireListedSize(path, size, artifact.manifest().files.at(path));
  AlignedBuffer piece(pieceBytes);
  for (const TensorBytes::Run& run : bytes.runs) {
    if (run.offset > size || run.bytes > size - run.offset) {
      refuse(fmt::format("{} lies beyond the end of {}", bytes.tensor->name, path));
    }
    copyRun(artifact.directory, file.get(), path, run, piece, output);
  }
}

}  // namespace vellicor
