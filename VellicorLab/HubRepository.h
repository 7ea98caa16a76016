#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VellicorLab/ByteSource.h"

namespace vellicor {

/// One file that a hub serves: its bytes on demand, and its identity.
class HubFile : public ByteSource {
 public:
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

/// The identity of a file: made from anything that changes when its bytes do, so that a file of many
/// gigabytes need not be read to be named.
struct HubFileIdentity {
  std::string contentTag;
  std::optional<std::string> xetHash;

  static HubFileIdentity small(std::string_view fingerprint);
  static HubFileIdentity large(std::string_view fingerprint);
};

}  // namespace vellicor
