#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "Tests/FaultInjection/FileCallRecord.h"

namespace vellicor {

/// A directory tree: relative path to a file's content, or to nothing for a directory.
using DiskTree = std::map<std::string, std::optional<std::string>>;

/// Writes a tree below an existing, empty directory.
void materialize(const DiskTree& tree, const std::string& place);

/// What a disk holds while file calls are replayed on it, and what of it a power cut may leave. As POSIX has
/// it, a file's bytes are safe once the file is synced, and its name once its directory is; of what came
/// later any part may be lost, file by file and directory by directory.
class DiskModel {
 public:
  /// Starts with what is below `root`, all of it safe.
  explicit DiskModel(const std::string& root);

  /// Replays one recorded call that succeeded. Returns whether it changed the disk or what is safe.
  bool apply(const FileCall& call);

  enum class Loss {
    /// Nothing is lost: the process ends and the machine goes on.
    nothing,
    /// The last write reached the disk by half.
    lastWriteTorn,
    /// Everything that was not synced.
    everything,
    /// The bytes of files, not the names and not the sizes: what was not synced reads as zeros.
    bytes,
    /// The bytes and the sizes of files, not the names.
    bytesAndSizes,
    /// Each write to a file or not, torn or whole, and the later part of what was done to each directory.
    atRandom,
  };

  DiskTree after(Loss loss, std::mt19937_64& random) const;

 private:
  using NodeID = std::size_t;

  struct Write {
    std::uint64_t offset;
    std::string data;
  };
  struct Truncate {
    std::uint64_t size;
  };
  /// All names that one call gave or took (nothing), together.
  struct Names {
    std::vector<std::pair<std::string, std::optional<NodeID>>> changes;
  };
  using Change = std::variant<Write, Truncate, Names>;

  struct Node {
    bool isDirectory = false;
    std::string content{};
    std::map<std::string, NodeID> entries{};

    void apply(const Change& change);
  };
  struct StoredNode {
    Node safe{};
    Node current{};
    /// What `current` has and `safe` has not, in order.
    std::vector<Change> pending{};
  };

  struct Place {
    NodeID directory;
    std::string name;
    std::optional<NodeID> node;
  };

  NodeID load(const std::string& path);
  NodeID add(bool isDirectory);
  /// Where a path leads, or nothing when its directory is not there.
  std::optional<Place> find(const std::string& path) const;
  void change(NodeID node, Change change);
  bool applyOpen(const FileCall& call, const Place& place);
  bool applyExisting(const FileCall& call, const Place& place);
  Node nodeAfter(NodeID id, Loss loss, std::mt19937_64& random) const;
  void collect(NodeID id, const std::string& prefix, Loss loss, std::mt19937_64& random,
               DiskTree& tree) const;

  std::string root_;
  std::vector<StoredNode> nodes_;
  NodeID rootNode_ = 0;
  /// The file that was written last.
  std::optional<NodeID> lastWritten_;
};

}  // namespace vellicor
