#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vellicor {

/// The core's one error. Every case is a small struct named like its factory; `what()` is the only text ever
/// shown for it. URLs put into a case have already been redacted by the caller.
class RepackError : public std::exception {
 public:
  struct FileOpenFailed {
    std::string path;
    std::int32_t errnoValue;
  };
  struct FileStatFailed {
    std::string path;
    std::int32_t errnoValue;
  };
  struct FtruncateFailed {
    std::string path;
    std::int32_t errnoValue;
  };
  struct PwriteShort {
    std::string path;
    std::int64_t expected;
    std::int64_t wrote;
    std::int32_t errnoValue;
  };
  struct PreadShort {
    std::string path;
    std::int64_t expected;
    std::int64_t got;
    std::int32_t errnoValue;
  };
  struct RenameFailed {
    std::string from;
    std::string to;
    std::int32_t errnoValue;
  };
  struct FsyncFailed {
    std::string path;
    std::int32_t errnoValue;
  };
  struct InstallBusy {
    std::string path;
  };
  struct InstallPathUnsafe {
    std::string path;
    std::string detail;
  };
  struct InstallStateMissing {
    std::string path;
  };
  struct InstallStateCorrupt {
    std::string path;
    std::string detail;
  };
  struct InstallStateIncompatible {
    std::string detail;
  };
  struct PromotionUnsupported {
    std::string path;
    std::int32_t errnoValue;
  };
  struct SafetensorsHeaderTooLarge {
    std::string path;
    std::uint64_t size;
  };
  struct SafetensorsHeaderInvalid {
    std::string path;
    std::string detail;
  };
  struct SafetensorsUnknownDtype {
    std::string path;
    std::string dtype;
  };
  struct SafetensorsTensorOutOfRange {
    std::string path;
    std::string name;
    std::uint64_t end;
    std::uint64_t fileSize;
  };
  struct IndexJsonInvalid {
    std::string path;
    std::string detail;
  };
  struct ConfigJsonInvalid {
    std::string path;
    std::string detail;
  };
  struct QuantOverrideCountMismatch {
    std::int64_t expected;
    std::int64_t actual;
    std::vector<std::string> sample;
  };
  struct MissingTensor {
    std::string name;
  };
  struct UnknownTensorPrefix {
    std::string name;
  };
  struct MissingScalesCompanion {
    std::string name;
  };
  struct MissingBiasesCompanion {
    std::string name;
  };
  struct ShapeMismatch {
    std::string name;
    std::string detail;
  };
  struct DtypeMismatch {
    std::string name;
    std::string detail;
  };
  struct SourceFingerprintRejected {
    std::string path;
    std::string sha256;
  };
  struct RemoteProtocolInvalid {
    std::string detail;
  };
  struct RemoteHTTPStatus {
    std::string url;
    std::int64_t status;
  };
  struct RemoteHTTPResponse {
    std::string url;
    std::int64_t status;
    std::optional<std::string> retryAfter;
  };
  struct RemoteBodyTruncated {
    std::string path;
    std::uint64_t expected;
    std::uint64_t actual;
  };
  struct RemoteBodyExceeded {
    std::string path;
    std::uint64_t limit;
    std::uint64_t attempted;
  };
  struct RemoteRedirectRejected {
    std::string url;
    std::string detail;
  };
  struct RemoteRetryDelayExceeded {
    std::string value;
    std::uint64_t capSeconds;
  };
  struct RemoteFileTooLarge {
    std::string path;
    std::uint64_t size;
    std::uint64_t cap;
  };
  struct DiskSpaceInsufficient {
    std::string path;
    std::uint64_t required;
    std::uint64_t available;
  };
  struct ScratchExceeded {
    std::int64_t requested;
    std::int64_t limit;
  };
  struct ConfigurationInvalid {
    std::string detail;
  };

  using Payload = std::variant<
      FileOpenFailed, FileStatFailed, FtruncateFailed, PwriteShort, PreadShort, RenameFailed, FsyncFailed,
      InstallBusy, InstallPathUnsafe, InstallStateMissing, InstallStateCorrupt, InstallStateIncompatible,
      PromotionUnsupported, SafetensorsHeaderTooLarge, SafetensorsHeaderInvalid, SafetensorsUnknownDtype,
      SafetensorsTensorOutOfRange, IndexJsonInvalid, ConfigJsonInvalid, QuantOverrideCountMismatch,
      MissingTensor, UnknownTensorPrefix, MissingScalesCompanion, MissingBiasesCompanion, ShapeMismatch,
      DtypeMismatch, SourceFingerprintRejected, RemoteProtocolInvalid, RemoteHTTPStatus, RemoteHTTPResponse,
      RemoteBodyTruncated, RemoteBodyExceeded, RemoteRedirectRejected, RemoteRetryDelayExceeded,
      RemoteFileTooLarge, DiskSpaceInsufficient, ScratchExceeded, ConfigurationInvalid>;

  static RepackError fileOpenFailed(std::string path, std::int32_t errnoValue);
  static RepackError fileStatFailed(std::string path, std::int32_t errnoValue);
  static RepackError ftruncateFailed(std::string path, std::int32_t errnoValue);
  static RepackError pwriteShort(std::string path, std::int64_t expected, std::int64_t wrote,
                                 std::int32_t errnoValue);
  static RepackError preadShort(std::string path, std::int64_t expected, std::int64_t got,
                                std::int32_t errnoValue);
  static RepackError renameFailed(std::string from, std::string to, std::int32_t errnoValue);
  static RepackError fsyncFailed(std::string path, std::int32_t errnoValue);
  static RepackError installBusy(std::string path);
  static RepackError installPathUnsafe(std::string path, std::string detail);
  static RepackError installStateMissing(std::string path);
  static RepackError installStateCorrupt(std::string path, std::string detail);
  static RepackError installStateIncompatible(std::string detail);
  static RepackError promotionUnsupported(std::string path, std::int32_t errnoValue);
  static RepackError safetensorsHeaderTooLarge(std::string path, std::uint64_t size);
  static RepackError safetensorsHeaderInvalid(std::string path, std::string detail);
  static RepackError safetensorsUnknownDtype(std::string path, std::string dtype);
  static RepackError safetensorsTensorOutOfRange(std::string path, std::string name, std::uint64_t end,
                                                 std::uint64_t fileSize);
  static RepackError indexJsonInvalid(std::string path, std::string detail);
  static RepackError configJsonInvalid(std::string path, std::string detail);
  static RepackError quantOverrideCountMismatch(std::int64_t expected, std::int64_t actual,
                                                std::vector<std::string> sample);
  static RepackError missingTensor(std::string name);
  static RepackError unknownTensorPrefix(std::string name);
  static RepackError missingScalesCompanion(std::string name);
  static RepackError missingBiasesCompanion(std::string name);
  static RepackError shapeMismatch(std::string name, std::string detail);
  static RepackError dtypeMismatch(std::string name, std::string detail);
  static RepackError sourceFingerprintRejected(std::string path, std::string sha256);
  static RepackError remoteProtocolInvalid(std::string detail);
  static RepackError remoteHTTPStatus(std::string url, std::int64_t status);
  static RepackError remoteHTTPResponse(std::string url, std::int64_t status,
                                        std::optional<std::string> retryAfter);
  static RepackError remoteBodyTruncated(std::string path, std::uint64_t expected, std::uint64_t actual);
  static RepackError remoteBodyExceeded(std::string path, std::uint64_t limit, std::uint64_t attempted);
  static RepackError remoteRedirectRejected(std::string url, std::string detail);
  static RepackError remoteRetryDelayExceeded(std::string value, std::uint64_t capSeconds);
  static RepackError remoteFileTooLarge(std::string path, std::uint64_t size, std::uint64_t cap);
  static RepackError diskSpaceInsufficient(std::string path, std::uint64_t required, std::uint64_t available);
  static RepackError scratchExceeded(std::int64_t requested, std::int64_t limit);
  static RepackError configurationInvalid(std::string detail);

  const Payload& payload() const noexcept { return payload_; }
  /// The payload of one case, or nullptr when this is another case.
  template <typename Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&payload_);
  }
  /// The whole text; `what()` ends at a NUL character, which a hostile name may hold.
  const std::string& description() const noexcept { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  explicit RepackError(Payload payload);

  Payload payload_;
  std::string text_;
};

/// The surrounding operation was cancelled. It always leaves a resumable state.
class CancellationError : public std::exception {
 public:
  const char* what() const noexcept override { return "cancelled"; }
};

/// What the HTTP client itself reports, apart from any answer of a server. `what()` is one sentence for a
/// person; it names what failed and the redacted URL.
class NetworkError : public std::exception {
 public:
  enum class Code {
    timedOut,
    connectionLost,
    cannotConnect,
    nameResolution,
    offline,
    resourceUnavailable,
    tls,
    other,
  };

  NetworkError(Code code, std::string text) : code_(code), text_(std::move(text)) {}

  Code code() const noexcept { return code_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  Code code_;
  std::string text_;
};

}  // namespace vellicor
