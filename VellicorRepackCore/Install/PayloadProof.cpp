#include "VellicorRepackCore/Install/PayloadProof.h"

#include <algorithm>
#include <utility>

#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/FileChunks.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor {

namespace {

bool isReadInto(std::span<std::byte> bytes, int fd, const std::string& path, std::uint64_t offset) {
  try {
    Posix::preadAll(fd, path, bytes.data(), static_cast<std::int64_t>(bytes.size()), offset);
    return true;
  } catch (const RepackError& error) {
    if (error.as<PreadShort>() == nullptr) throw;
    return false;
  }
}

}  // namespace

PayloadProof::PayloadProof(const RepackPlan& plan, const RangeCopyPlan& copies, std::string partialDirectory)
    : partialDirectory_(std::move(partialDirectory)) {
  std::map<std::string, std::vector<Stretch>> written;
  for (const CoalescedRangeCopy& range : copies.coalescedCopies) {
    for (const RangeCopy& destination : range.destinations) {
      const std::uint64_t begin = destination.destinationOffset;
      written[destination.destinationPath].push_back({begin, begin + destination.size, &range, &destination});
    }
  }
  for (const RemoteExpectedOutput& output : copies.expectedOutputs) {
    const std::string path = joinPath(partialDirectory_, output.relativePath);
    files_[path] = {.size = output.size, .head = {}, .stretches = withGaps(written[path], output.size)};
  }
  files_.at(plan.resident.path).head = ResidentWriter::encodeIndex(plan.resident);
}

std::vector<PayloadProof::Stretch> PayloadProof::withGaps(std::vector<Stretch> written, std::uint64_t size) {
  std::ranges::sort(written, {}, &Stretch::begin);
  std::vector<Stretch> all;
  std::uint64_t end = 0;
  const auto fillUpTo = [&](std::uint64_t begin) {
    if (begin > end) all.push_back({.begin = end, .end = begin});
  };
  for (const Stretch& stretch : written) {
    fillUpTo(stretch.begin);
    all.push_back(stretch);
    end = stretch.end;
  }
  fillUpTo(size);
  return all;
}

void PayloadProof::add(const std::string& rangeID, RangeProof proof) {
  proofs_.insert_or_assign(rangeID, std::move(proof));
}

PayloadProof::Pass PayloadProof::passOver(const std::string& path) const { return Pass(*this, path); }

std::size_t PayloadProof::File::headBytesAt(std::uint64_t offset, std::size_t length) const {
  return offset >= head.size() ? 0 : std::min(length, head.size() - static_cast<std::size_t>(offset));
}

bool PayloadProof::File::isAsPlanned(std::uint64_t offset, std::span<const std::byte> bytes) const {
  const std::size_t ofHead = headBytesAt(offset, bytes.size());
  const auto isZero = [](std::byte byte) { return byte == std::byte{0}; };
  return (ofHead == 0 || std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(ofHead),
                                    head.begin() + static_cast<std::ptrdiff_t>(offset))) &&
         std::ranges::all_of(bytes.subspan(ofHead), isZero);
}

void PayloadProof::File::plan(std::uint64_t offset, std::span<std::byte> bytes) const {
  const std::size_t ofHead = headBytesAt(offset, bytes.size());
  if (ofHead > 0) std::copy_n(head.begin() + static_cast<std::ptrdiff_t>(offset), ofHead, bytes.begin());
  std::ranges::fill(bytes.subspan(ofHead), std::byte{0});
}

void PayloadProof::restoreOutside(const std::string& path) const {
  const File& file = files_.at(path);
  const FileDescriptor descriptor = Posix::openExistingRW(path);
  Posix::ftruncate(descriptor.get(), path, file.size);
  AlignedBuffer buffer(fileChunkBytes);
  for (const Stretch& stretch : file.stretches) {
    if (stretch.range != nullptr) continue;
    for (std::uint64_t at = stretch.begin; at < stretch.end;) {
      const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), stretch.end - at));
      const std::span<std::byte> bytes = buffer.bytes().first(length);
      // What is right is not written, so holes stay holes.
      if (!isReadInto(bytes, descriptor.get(), path, at) || !file.isAsPlanned(at, bytes)) {
        file.plan(at, bytes);
        Posix::pwriteAll(descriptor.get(), path, bytes.data(), static_cast<std::int64_t>(length), at);
      }
      at += length;
    }
  }
  Posix::fsync(descriptor.get(), path);
}

// ---- Passes ----

PayloadProof::Pass::Pass(const PayloadProof& proof, const std::string& path)
    : proof_(proof), path_(path), file_(proof.files_.at(path)) {
  for (const Stretch& stretch : file_.stretches) {
    if (stretch.range != nullptr && !shares_.contains(stretch.range->id)) openShare(stretch);
  }
}

void PayloadProof::Pass::openShare(const Stretch& firstOfRange) {
  const CoalescedRangeCopy& range = *firstOfRange.range;
  OpenShare& open = shares_[range.id];
  const auto proof = proof_.proofs_.find(range.id);
  if (proof == proof_.proofs_.end()) return;
  const auto first = static_cast<std::size_t>(firstOfRange.destination - range.destinations.data());
  const auto share = std::ranges::find(proof->second.shares, first, &RangeProof::Share::first);
  if (share != proof->second.shares.end()) open = {share->before, share->after, share->count};
}

void PayloadProof::Pass::take(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    if (stretch_ == file_.stretches.size()) {
      isDamagedOutside_ = true;  // Longer than planned.
      return;
    }
    const Stretch& stretch = file_.stretches[stretch_];
    const std::uint64_t length = std::min<std::uint64_t>(bytes.size(), stretch.end - position_);
    takeOf(stretch, bytes.first(static_cast<std::size_t>(length)));
    position_ += length;
    bytes = bytes.subspan(static_cast<std::size_t>(length));
    if (position_ == stretch.end) endStretch(stretch);
  }
}

void PayloadProof::Pass::takeOf(const Stretch& stretch, std::span<const std::byte> bytes) {
  if (stretch.range == nullptr) {
    isDamagedOutside_ = isDamagedOutside_ || !file_.isAsPlanned(position_, bytes);
    return;
  }
  OpenShare& share = shares_.at(stretch.range->id);
  if (position_ == stretch.begin) {
    RangeProof::appendPlace(*stretch.range, *stretch.destination, proof_.partialDirectory_, share.digest);
  }
  share.digest.appendBytes(bytes);
}

void PayloadProof::Pass::endStretch(const Stretch& stretch) {
  ++stretch_;
  if (stretch.range == nullptr) return;
  const auto share = shares_.find(stretch.range->id);
  share->second.destinationsLeft -= 1;
  const bool isWhole = share->second.destinationsLeft == 0;
  if (isWhole && share->second.digest.finalizeHexString() == share->second.after) shares_.erase(share);
}

PayloadDamage PayloadProof::Pass::finish() {
  if (stretch_ != file_.stretches.size()) isDamagedOutside_ = true;  // Shorter than planned.
  if (shares_.empty() && !isDamagedOutside_) return {};
  PayloadDamage damage{.path = path_, .rangeIDs = {}};
  for (const auto& [rangeID, share] : shares_) damage.rangeIDs.push_back(rangeID);
  return damage;
}

}  // namespace vellicor
