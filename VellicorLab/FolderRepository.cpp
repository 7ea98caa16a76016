#include "VellicorLab/FolderRepository.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>

namespace vellicor {

namespace {

constexpr std::uint64_t largestSmallFile = 10'000'000;

class FolderFile final : public HubFile {
 public:
  FolderFile(FileDescriptor fd, std::string path, std::uint64_t size, HubFileIdentity identity)
      : fd_(std::move(fd)), path_(std::move(path)), size_(size), identity_(std::move(identity)) {}

  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, std::span<std::byte> bytes) const override {
    Posix::preadAll(fd_.get(), path_, bytes.data(), static_cast<std::int64_t>(bytes.size()), offset);
  }
  std::string contentTag() const override { return identity_.contentTag; }
  std::optional<std::string> xetHash() const override { return identity_.xetHash; }

 private:
  FileDescriptor fd_;
  std::string path_;
  std::uint64_t size_;
  HubFileIdentity identity_;
};

HubFileIdentity identityOf(int fd, const std::string& path, const std::string& name, std::uint64_t size) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) throw RepackError(FileStatFailed{.path = path, .errnoValue = errno});
  const std::string fingerprint =
      fmt::format("{} {} {}", name, size, static_cast<std::int64_t>(info.st_mtime));
  const bool isLarge =
      size > largestSmallFile || name.ends_with(".safetensors") || name.ends_with("tokenizer.json");
  return isLarge ? HubFileIdentity::large(fingerprint) : HubFileIdentity::small(fingerprint);
}

}  // namespace

std::shared_ptr<const HubFile> FolderRepository::file(const std::string& name) const try {
  FileDescriptor fd = root_.openFile(name);
  const std::string path = joinPath(root_.rootPath(), name);
  const std::uint64_t size = root_.fileSize(fd.get(), name);
  HubFileIdentity identity = identityOf(fd.get(), path, name, size);
  return std::make_shared<FolderFile>(std::move(fd), path, size, std::move(identity));
} catch (const RepackError&) {
  return nullptr;
}

}  // namespace vellicor
