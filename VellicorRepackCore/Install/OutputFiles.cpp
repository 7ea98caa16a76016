#include "VellicorRepackCore/Install/OutputFiles.h"

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor {

std::uint64_t OutputFiles::totalBytes(const RepackPlan& plan) {
  constexpr const char* field = "output size";
  std::uint64_t total = morlenCheckedAdd(plan.resident.indexSize, plan.resident.residentSize, field);
  for (const LayerFilePlan& layer : plan.layers) {
    total = morlenCheckedAdd(total, layer.fileBytes(field), field);
  }
  return total;
}

void OutputFiles::create(const RepackPlan& plan, const std::string& partialDirectory, RepackAudit& audit) {
  const std::string expertsDirectory = joinPath(partialDirectory, MorlenFormatV1::expertsDirectory);
  Posix::mkdir(expertsDirectory);
  {
    const FileDescriptor resident = ResidentWriter::createAndWriteIndex(plan.resident, audit);
    Posix::fsync(resident.get(), plan.resident.path);
  }
  Posix::fsyncDirectory(partialDirectory);
  for (const LayerFilePlan& layer : plan.layers) {
    if (!layer.hasFile()) continue;
    const FileDescriptor file = Posix::openCreateRWNoFollow(layer.path);
    Posix::ftruncate(file.get(), layer.path, layer.fileBytes("layer file size"));
    Posix::fsync(file.get(), layer.path);
  }
  Posix::fsyncDirectory(expertsDirectory);
}

std::uint64_t OutputFiles::bytesInPlace(const RangeCopyPlan& copies, const std::string& partialDirectory) {
  std::uint64_t bytes = 0;
  for (const RemoteExpectedOutput& output : copies.expectedOutputs) {
    const std::string path = joinPath(partialDirectory, output.relativePath);
    bytes = morlenCheckedAdd(bytes, Posix::bytesInPlace(Posix::openReadNoFollow(path).get(), path),
                             "bytes in place");
  }
  return bytes;
}

}  // namespace vellicor
