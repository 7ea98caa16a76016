#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

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

/// The commit of the supported checkpoint.
inline constexpr const char* supportedCommit = "0d77464eeb233a2da68ebf9d7dc4edaac7db956d";

/// What a file is known by: made from anything that changes when its bytes do, so that a file of many
/// gigabytes need not be read to be named.
struct HubFileIdentity {
  std::string contentTag;
  std::optional<std::string> xetHash;

  static HubFileIdentity small(std::string_view fingerprint);
  static HubFileIdentity large(std::string_view fingerprint);
};

}  // namespace vellicor
