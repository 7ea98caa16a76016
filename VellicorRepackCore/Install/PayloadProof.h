#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Install/RangeProof.h"

namespace vellicor {

/// What a payload file holds that it should not.
struct PayloadDamage {
  /// Empty when nothing is damaged.
  std::string path;
  /// The ranges whose share of the file is no longer what it was when they were finished; none when the
  /// damage lies outside the ranges.
  std::vector<std::string> rangeIDs;

  explicit operator bool() const { return !path.empty(); }
};

/// Knows of every byte of every payload file what it must be: those that a range wrote from the range's
/// proof; those that no range writes from the plan, which are the resident index and zeros. So a pass over a
/// file that reads it for its digest can prove it as well. Once complete it may be used by several threads.
class PayloadProof {
 public:
  class Pass;

  /// `copies` must outlive this object, and its passes.
  PayloadProof(const RepackPlan& plan, const RangeCopyPlan& copies, std::string partialDirectory);

  /// A finished range of the plan; it replaces an earlier proof of the same range.
  void add(const std::string& rangeID, RangeProof proof);

  /// Follows one pass over the file at `path`, one of the plan's outputs.
  Pass passOver(const std::string& path) const;

  /// Puts back the size and every byte that no range writes, and syncs the file. Throws what the file calls
  /// throw.
  void restoreOutside(const std::string& path) const;

 private:
  /// A run of bytes that one destination takes, or that none does.
  struct Stretch {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    const CoalescedRangeCopy* range = nullptr;
    const RangeCopy* destination = nullptr;
  };
  struct File {
    std::uint64_t size = 0;
    /// What the file begins with; what no range writes is zero from there on.
    std::vector<std::byte> head;
    /// All of the file, in order.
    std::vector<Stretch> stretches;

    std::size_t headBytesAt(std::uint64_t offset, std::size_t length) const;
    /// Of bytes that no range writes: whether they are what they must be, and what they must be.
    bool isAsPlanned(std::uint64_t offset, std::span<const std::byte> bytes) const;
    void plan(std::uint64_t offset, std::span<std::byte> bytes) const;
  };

  static std::vector<Stretch> withGaps(std::vector<Stretch> written, std::uint64_t size);

  std::string partialDirectory_;
  std::map<std::string, File> files_;
  std::map<std::string, RangeProof> proofs_;
};

/// One reading of a payload file from its first byte to its last. Used by one thread.
class PayloadProof::Pass {
 public:
  /// The bytes that follow those taken before.
  void take(std::span<const std::byte> bytes);
  /// After the last byte.
  PayloadDamage finish();

 private:
  friend class PayloadProof;
  /// A range's digest on its way through its share of the file. No digest is `after` for a range that was
  /// never added.
  struct OpenShare {
    FingerprintWriter digest;
    std::string after;
    std::size_t destinationsLeft = 0;
  };

  Pass(const PayloadProof& proof, const std::string& path);
  void openShare(const Stretch& firstOfRange);
  void takeOf(const Stretch& stretch, std::span<const std::byte> bytes);
  void endStretch(const Stretch& stretch);

  const PayloadProof& proof_;
  const std::string path_;
  const File& file_;
  /// By range id; those that are proven have gone.
  std::map<std::string, OpenShare> shares_;
  std::uint64_t position_ = 0;
  std::size_t stretch_ = 0;
  bool isDamagedOutside_ = false;
};

}  // namespace vellicor
