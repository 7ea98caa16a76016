#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VellicorLab/CheckpointShapes.h"
#include "VellicorLab/HubRepository.h"

namespace vellicor {

/// A made-up checkpoint: real-looking index, configuration and shard headers, and payload bytes that are a
/// function of (seed, shard, offset), never stored, so that a full-size source costs no disk and every byte
/// can be predicted.
///
/// A shard file is the header's length (8 bytes, little-endian), the JSON header, and the payload up to the
/// largest data offset. The payload byte at offset o of the shard *file* (o is at least 8 + header length) is
/// byte o mod 8, the least significant being byte 0, of the 64-bit block
///
///     mix(mix(seed ^ fnv1a(shard name)) + (o / 8 + 1) x 0x9E3779B97F4A7C15)   (mod 2^64)
///
/// where mix is the finaliser of SplitMix64 (z ^= z >> 30, z *= 0xBF58476D1CE4E5B9, z ^= z >> 27,
/// z *= 0x94D049BB133111EB, z ^= z >> 31) and fnv1a the 64-bit FNV-1a hash of the name's bytes.
///
/// Headers are compact JSON without padding, as the supported checkpoint's are, and of odd length where they
/// are made up, so that tensors lie at odd offsets; the data order is neither name nor module order.
class SyntheticCheckpoint final : public HubRepository {
 public:
  /// The supported checkpoint's names and its exact index file with small shapes: a few megabytes in all.
  static std::shared_ptr<SyntheticCheckpoint> miniature(std::uint64_t seed);
  /// The same with few experts of the real shapes: about 2 GiB.
  static std::shared_ptr<SyntheticCheckpoint> medium(std::uint64_t seed);
  /// The supported checkpoint's exact index file and headers.
  static std::shared_ptr<SyntheticCheckpoint> fullSize(std::uint64_t seed);

  /// A checkpoint of the same family with an index of its own.
  struct Shape {
    std::int64_t layers = 2;
    std::int64_t experts = 4;
    /// These three are multiples of 8 and of `groupSize`.
    std::int64_t hidden = 64;
    std::int64_t intermediate = 128;
    std::int64_t moeIntermediate = 64;
    std::int64_t vocab = 256;
    std::int64_t groupSize = 64;
    int shards = 2;
    /// Vision and audio tensors, interleaved with the kept ones.
    int excludedTensors = 3;
    /// Every how many layers a layer has full attention; 0 for never.
    std::int64_t fullAttentionEvery = 2;
  };
  /// Throws `std::invalid_argument` for an impossible shape.
  static std::shared_ptr<SyntheticCheckpoint> custom(const Shape& shape, std::uint64_t seed);

  std::string commit() const override { return commit_; }
  std::shared_ptr<const HubFile> file(const std::string& name) const override;

  std::vector<std::string> fileNames() const;
  std::vector<std::string> shardNames() const { return shardNames_; }

  /// Replaces or adds a small file (a changed config.json, another sidecar); an empty optional removes it.
  /// For tests, before anything reads.
  void setSmallFile(const std::string& name, std::optional<std::string> content);

  /// Where the payload of a shard begins in its file.
  std::uint64_t payloadOffset(const std::string& shard) const;

  /// A tensor where its shard's header puts it.
  struct StoredTensor {
    std::shared_ptr<const HubFile> file;
    std::string dtype;
    std::vector<std::uint64_t> shape;
    /// From the first byte of the file.
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
  };
  /// Every tensor of every shard, by name.
  std::map<std::string, StoredTensor> tensors() const;

  /// A file's bytes, a shard's header included. Throws `std::out_of_range` for bytes or a file that do not
  /// exist.
  std::vector<std::byte> bytes(const std::string& name, std::uint64_t offset, std::uint64_t length) const;

 private:
  SyntheticCheckpoint(std::string commit, std::string index, std::string config,
                      std::shared_ptr<const HubFile> tokenizer);

  /// The supported checkpoint's names and index with these dimensions; what is not of the language model is
  /// small.
  static std::shared_ptr<SyntheticCheckpoint> reshaped(const CheckpointDimensions& dimensions,
                                                       std::uint64_t seed);
  void addShard(const std::string& name, std::string header, std::uint64_t payloadBytes, std::uint64_t seed);

  std::string commit_;
  std::map<std::string, std::shared_ptr<const HubFile>> files_;
  std::vector<std::string> shardNames_;
};

}  // namespace vellicor
