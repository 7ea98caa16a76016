#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vellicor {

/// One file that a hub serves: its size, its identity, and its bytes on demand.
class HubFile {
 public:
  virtual ~HubFile() = default;
  virtual std::uint64_t size() const = 0;
  /// Fills `bytes` with the file's bytes from `offset` on; the range lies inside the file. Safe from several
  /// threads.
  virtual void read(std::uint64_t offset, std::span<std::byte> bytes) const = 0;
  /// The quoted-out entity tag: 40 hexadecimal digits for a small file (git), 64 for a large one (sha256).
  virtual std::string contentTag() const = 0;
  /// 64 hexadecimal digits for a file kept on the storage host, nothing for a small one.
  virtual std::optional<std::string> xetHash() const = 0;
};

/// The files of one repository at one commit.
class HubRepository {
 public:
  virtual ~HubRepository() = default;
  /// 40 hexadecimal digits.
  virtual std::string commit() const = 0;
  /// Nothing for a file that the repository does not hold.
  virtual std::shared_ptr<const HubFile> file(const std::string& name) const = 0;
};

/// A made-up checkpoint: real-looking index, configuration and shard headers, and payload bytes that are a
/// function of (seed, shard, offset), never stored, so that a full-size source costs no disk and every byte
/// can be predicted.
class SyntheticCheckpoint final : public HubRepository {
 public:
  /// The supported checkpoint's names and its exact index file with small shapes: a few megabytes in all.
  static std::shared_ptr<SyntheticCheckpoint> miniature(std::uint64_t seed);
  /// The supported checkpoint's exact index file and headers.
  static std::shared_ptr<SyntheticCheckpoint> fullSize(std::uint64_t seed);

  /// A checkpoint of the same family with an index of its own.
  struct Shape {
    std::int64_t layers = 2;
    std::int64_t experts = 4;
    std::int64_t hidden = 64;
    std::int64_t intermediate = 128;
    std::int64_t moeIntermediate = 64;
    std::int64_t vocab = 256;
    std::int64_t groupSize = 64;
    int shards = 2;
    /// Vision tensors, interleaved with the kept ones.
    int excludedTensors = 3;
    /// Every how many layers a layer has full attention.
    std::int64_t fullAttentionEvery = 2;
  };
  static std::shared_ptr<SyntheticCheckpoint> custom(const Shape& shape, std::uint64_t seed);

  std::string commit() const override;
  std::shared_ptr<const HubFile> file(const std::string& name) const override;

  std::vector<std::string> fileNames() const;
  std::vector<std::string> shardNames() const;

  /// Replaces or adds a small file (a changed config.json, another sidecar); an empty optional removes it.
  /// For tests, before anything reads.
  void setSmallFile(const std::string& name, std::optional<std::string> content);

  /// The payload byte of a shard at an offset in the shard file; header bytes included.
  std::vector<std::byte> bytes(const std::string& name, std::uint64_t offset, std::uint64_t length) const;

 private:
  SyntheticCheckpoint() = default;

  std::map<std::string, std::shared_ptr<const HubFile>> files_;
  std::vector<std::string> shardNames_;
};

/// A folder of real files, served under any repository name.
class FolderRepository final : public HubRepository {
 public:
  explicit FolderRepository(std::string root);
  std::string commit() const override;
  std::shared_ptr<const HubFile> file(const std::string& name) const override;

 private:
  std::string root_;
};

}  // namespace vellicor
