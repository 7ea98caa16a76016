#include "VellicorRepackCore/Base/Errors.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <fmt/format.h>

namespace vellicor {

namespace {

constexpr std::size_t sampleLimit = 5;

std::string quotedList(const std::vector<std::string>& items, std::size_t limit) {
  std::string text = "[";
  for (std::size_t i = 0; i < std::min(items.size(), limit); ++i) {
    text += fmt::format("{}\"{}\"", i == 0 ? "" : ", ", items[i]);
  }
  return text + "]";
}

/// Every text that a user sees for a `RepackError`.
struct Description {
  using E = RepackError;

  std::string operator()(const E::FileOpenFailed& e) const {
    return fmt::format("open({}) failed: errno {}", e.path, e.errnoValue);
  }
  std::string operator()(const E::FileStatFailed& e) const {
    return fmt::format("fstat({}) failed: errno {}", e.path, e.errnoValue);
  }
  std::string operator()(const E::FtruncateFailed& e) const {
    return fmt::format("ftruncate({}) failed: errno {}", e.path, e.errnoValue);
  }
  std::string operator()(const E::PwriteShort& e) const {
    return fmt::format("pwrite({}) short: expected {}, wrote {}, errno {}", e.path, e.expected, e.wrote,
                       e.errnoValue);
  }
  std::string operator()(const E::PreadShort& e) const {
    return fmt::format("pread({}) short: expected {}, got {}, errno {}", e.path, e.expected, e.got,
                       e.errnoValue);
  }
  std::string operator()(const E::RenameFailed& e) const {
    return fmt::format("rename({} -> {}) failed: errno {}", e.from, e.to, e.errnoValue);
  }
  std::string operator()(const E::FsyncFailed& e) const {
    return fmt::format("fsync({}) failed: errno {}", e.path, e.errnoValue);
  }
  std::string operator()(const E::InstallBusy& e) const {
    return fmt::format("another installer holds {}", e.path);
  }
  std::string operator()(const E::InstallPathUnsafe& e) const {
    return fmt::format("unsafe installer path {}: {}", e.path, e.detail);
  }
  std::string operator()(const E::InstallStateMissing& e) const {
    return fmt::format("no resumable install state exists for {}", e.path);
  }
  std::string operator()(const E::InstallStateCorrupt& e) const {
    return fmt::format("install state at {} is corrupt: {}", e.path, e.detail);
  }
  std::string operator()(const E::InstallStateIncompatible& e) const {
    return fmt::format("install state is incompatible: {}", e.detail);
  }
  std::string operator()(const E::PromotionUnsupported& e) const {
    return fmt::format("atomic directory promotion is unsupported for {}: errno {}", e.path, e.errnoValue);
  }
  std::string operator()(const E::SafetensorsHeaderTooLarge& e) const {
    return fmt::format("safetensors header at {} size {} exceeds bound", e.path, e.size);
  }
  std::string operator()(const E::SafetensorsHeaderInvalid& e) const {
    return fmt::format("safetensors header at {} invalid: {}", e.path, e.detail);
  }
  std::string operator()(const E::SafetensorsUnknownDtype& e) const {
    return fmt::format("safetensors at {} has unsupported dtype {}", e.path, e.dtype);
  }
  std::string operator()(const E::SafetensorsTensorOutOfRange& e) const {
    return fmt::format("safetensors {}: tensor {} ends at {}, file size {}", e.path, e.name, e.end,
                       e.fileSize);
  }
  std::string operator()(const E::IndexJsonInvalid& e) const {
    return fmt::format("index.json {} invalid: {}", e.path, e.detail);
  }
  std::string operator()(const E::ConfigJsonInvalid& e) const {
    return fmt::format("config.json {} invalid: {}", e.path, e.detail);
  }
  std::string operator()(const E::QuantOverrideCountMismatch& e) const {
    return fmt::format("config.json quantization overrides: expected {}, got {}; sample={}", e.expected,
                       e.actual, quotedList(e.sample, sampleLimit));
  }
  std::string operator()(const E::MissingTensor& e) const {
    return fmt::format("expected tensor missing: {}", e.name);
  }
  std::string operator()(const E::UnknownTensorPrefix& e) const {
    return fmt::format("unknown tensor prefix: {}", e.name);
  }
  std::string operator()(const E::MissingScalesCompanion& e) const {
    return fmt::format("quantized tensor {} missing .scales companion", e.name);
  }
  std::string operator()(const E::MissingBiasesCompanion& e) const {
    return fmt::format("quantized tensor {} missing .biases companion", e.name);
  }
  std::string operator()(const E::ShapeMismatch& e) const {
    return fmt::format("shape mismatch for {}: {}", e.name, e.detail);
  }
  std::string operator()(const E::DtypeMismatch& e) const {
    return fmt::format("dtype mismatch for {}: {}", e.name, e.detail);
  }
  std::string operator()(const E::SourceFingerprintRejected& e) const {
    return fmt::format("source fingerprint {} for {} is not in known set", e.sha256, e.path);
  }
  std::string operator()(const E::RemoteProtocolInvalid& e) const {
    return fmt::format("remote protocol invalid: {}", e.detail);
  }
  std::string operator()(const E::RemoteHTTPStatus& e) const {
    return fmt::format("remote HTTP {}: {}", e.status, e.url);
  }
  std::string operator()(const E::RemoteHTTPResponse& e) const {
    const std::string retryAfter = e.retryAfter ? ", Retry-After " + *e.retryAfter : "";
    return fmt::format("remote HTTP {}: {}{}", e.status, e.url, retryAfter);
  }
  std::string operator()(const E::RemoteBodyTruncated& e) const {
    return fmt::format("remote body for {} was truncated: expected {}, received {}", e.path, e.expected,
                       e.actual);
  }
  std::string operator()(const E::RemoteBodyExceeded& e) const {
    return fmt::format("remote body for {} exceeded {} bytes at {} bytes", e.path, e.limit, e.attempted);
  }
  std::string operator()(const E::RemoteRedirectRejected& e) const {
    return fmt::format("remote redirect rejected for {}: {}", e.url, e.detail);
  }
  std::string operator()(const E::RemoteRetryDelayExceeded& e) const {
    return fmt::format("remote Retry-After {} exceeds {}-second cap", e.value, e.capSeconds);
  }
  std::string operator()(const E::RemoteFileTooLarge& e) const {
    return fmt::format("remote file {} size {} exceeds cap {}", e.path, e.size, e.cap);
  }
  std::string operator()(const E::DiskSpaceInsufficient& e) const {
    return fmt::format("insufficient disk space for {}: required {}, available {}", e.path, e.required,
                       e.available);
  }
  std::string operator()(const E::ScratchExceeded& e) const {
    return fmt::format("resident index size {} exceeds limit {}", e.requested, e.limit);
  }
  std::string operator()(const E::ConfigurationInvalid& e) const {
    return fmt::format("configuration invalid: {}", e.detail);
  }
};

}  // namespace

RepackError::RepackError(Payload payload)
    : payload_(std::move(payload)), text_(std::visit(Description{}, payload_)) {}

RepackError RepackError::fileOpenFailed(std::string path, std::int32_t errnoValue) {
  return RepackError(FileOpenFailed{std::move(path), errnoValue});
}
RepackError RepackError::fileStatFailed(std::string path, std::int32_t errnoValue) {
  return RepackError(FileStatFailed{std::move(path), errnoValue});
}
RepackError RepackError::ftruncateFailed(std::string path, std::int32_t errnoValue) {
  return RepackError(FtruncateFailed{std::move(path), errnoValue});
}
RepackError RepackError::pwriteShort(std::string path, std::int64_t expected, std::int64_t wrote,
                                     std::int32_t errnoValue) {
  return RepackError(PwriteShort{std::move(path), expected, wrote, errnoValue});
}
RepackError RepackError::preadShort(std::string path, std::int64_t expected, std::int64_t got,
                                    std::int32_t errnoValue) {
  return RepackError(PreadShort{std::move(path), expected, got, errnoValue});
}
RepackError RepackError::renameFailed(std::string from, std::string to, std::int32_t errnoValue) {
  return RepackError(RenameFailed{std::move(from), std::move(to), errnoValue});
}
RepackError RepackError::fsyncFailed(std::string path, std::int32_t errnoValue) {
  return RepackError(FsyncFailed{std::move(path), errnoValue});
}
RepackError RepackError::installBusy(std::string path) { return RepackError(InstallBusy{std::move(path)}); }
RepackError RepackError::installPathUnsafe(std::string path, std::string detail) {
  return RepackError(InstallPathUnsafe{std::move(path), std::move(detail)});
}
RepackError RepackError::installStateMissing(std::string path) {
  return RepackError(InstallStateMissing{std::move(path)});
}
RepackError RepackError::installStateCorrupt(std::string path, std::string detail) {
  return RepackError(InstallStateCorrupt{std::move(path), std::move(detail)});
}
RepackError RepackError::installStateIncompatible(std::string detail) {
  return RepackError(InstallStateIncompatible{std::move(detail)});
}
RepackError RepackError::promotionUnsupported(std::string path, std::int32_t errnoValue) {
  return RepackError(PromotionUnsupported{std::move(path), errnoValue});
}
RepackError RepackError::safetensorsHeaderTooLarge(std::string path, std::uint64_t size) {
  return RepackError(SafetensorsHeaderTooLarge{std::move(path), size});
}
RepackError RepackError::safetensorsHeaderInvalid(std::string path, std::string detail) {
  return RepackError(SafetensorsHeaderInvalid{std::move(path), std::move(detail)});
}
RepackError RepackError::safetensorsUnknownDtype(std::string path, std::string dtype) {
  return RepackError(SafetensorsUnknownDtype{std::move(path), std::move(dtype)});
}
RepackError RepackError::safetensorsTensorOutOfRange(std::string path, std::string name, std::uint64_t end,
                                                     std::uint64_t fileSize) {
  return RepackError(SafetensorsTensorOutOfRange{std::move(path), std::move(name), end, fileSize});
}
RepackError RepackError::indexJsonInvalid(std::string path, std::string detail) {
  return RepackError(IndexJsonInvalid{std::move(path), std::move(detail)});
}
RepackError RepackError::configJsonInvalid(std::string path, std::string detail) {
  return RepackError(ConfigJsonInvalid{std::move(path), std::move(detail)});
}
RepackError RepackError::quantOverrideCountMismatch(std::int64_t expected, std::int64_t actual,
                                                    std::vector<std::string> sample) {
  return RepackError(QuantOverrideCountMismatch{expected, actual, std::move(sample)});
}
RepackError RepackError::missingTensor(std::string name) {
  return RepackError(MissingTensor{std::move(name)});
}
RepackError RepackError::unknownTensorPrefix(std::string name) {
  return RepackError(UnknownTensorPrefix{std::move(name)});
}
RepackError RepackError::missingScalesCompanion(std::string name) {
  return RepackError(MissingScalesCompanion{std::move(name)});
}
RepackError RepackError::missingBiasesCompanion(std::string name) {
  return RepackError(MissingBiasesCompanion{std::move(name)});
}
RepackError RepackError::shapeMismatch(std::string name, std::string detail) {
  return RepackError(ShapeMismatch{std::move(name), std::move(detail)});
}
RepackError RepackError::dtypeMismatch(std::string name, std::string detail) {
  return RepackError(DtypeMismatch{std::move(name), std::move(detail)});
}
RepackError RepackError::sourceFingerprintRejected(std::string path, std::string sha256) {
  return RepackError(SourceFingerprintRejected{std::move(path), std::move(sha256)});
}
RepackError RepackError::remoteProtocolInvalid(std::string detail) {
  return RepackError(RemoteProtocolInvalid{std::move(detail)});
}
RepackError RepackError::remoteHTTPStatus(std::string url, std::int64_t status) {
  return RepackError(RemoteHTTPStatus{std::move(url), status});
}
RepackError RepackError::remoteHTTPResponse(std::string url, std::int64_t status,
                                            std::optional<std::string> retryAfter) {
  return RepackError(RemoteHTTPResponse{std::move(url), status, std::move(retryAfter)});
}
RepackError RepackError::remoteBodyTruncated(std::string path, std::uint64_t expected, std::uint64_t actual) {
  return RepackError(RemoteBodyTruncated{std::move(path), expected, actual});
}
RepackError RepackError::remoteBodyExceeded(std::string path, std::uint64_t limit, std::uint64_t attempted) {
  return RepackError(RemoteBodyExceeded{std::move(path), limit, attempted});
}
RepackError RepackError::remoteRedirectRejected(std::string url, std::string detail) {
  return RepackError(RemoteRedirectRejected{std::move(url), std::move(detail)});
}
RepackError RepackError::remoteRetryDelayExceeded(std::string value, std::uint64_t capSeconds) {
  return RepackError(RemoteRetryDelayExceeded{std::move(value), capSeconds});
}
RepackError RepackError::remoteFileTooLarge(std::string path, std::uint64_t size, std::uint64_t cap) {
  return RepackError(RemoteFileTooLarge{std::move(path), size, cap});
}
RepackError RepackError::diskSpaceInsufficient(std::string path, std::uint64_t required,
                                               std::uint64_t available) {
  return RepackError(DiskSpaceInsufficient{std::move(path), required, available});
}
RepackError RepackError::scratchExceeded(std::int64_t requested, std::int64_t limit) {
  return RepackError(ScratchExceeded{requested, limit});
}
RepackError RepackError::configurationInvalid(std::string detail) {
  return RepackError(ConfigurationInvalid{std::move(detail)});
}

}  // namespace vellicor
