#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>

namespace vellicor {

// Every failure of the core, with the text that a person reads for it. Callers redact a URL before they put it
// into a case. Details that others must recognise stand beside the case that they are for.

struct FileOpenFailed {
  static constexpr std::string_view format = "open({}) failed: errno {}";
  std::string path;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, errnoValue); }
};

struct FileStatFailed {
  static constexpr std::string_view format = "fstat({}) failed: errno {}";
  std::string path;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, errnoValue); }
};

struct FtruncateFailed {
  static constexpr std::string_view format = "ftruncate({}) failed: errno {}";
  std::string path;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, errnoValue); }
};

struct PwriteShort {
  static constexpr std::string_view format = "pwrite({}) short: expected {}, wrote {}, errno {}";
  std::string path;
  std::int64_t expected;
  std::int64_t wrote;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, expected, wrote, errnoValue); }
};

struct PreadShort {
  static constexpr std::string_view format = "pread({}) short: expected {}, got {}, errno {}";
  std::string path;
  std::int64_t expected;
  std::int64_t got;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, expected, got, errnoValue); }
};

struct RenameFailed {
  static constexpr std::string_view format = "rename({} -> {}) failed: errno {}";
  std::string from;
  std::string to;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, from, to, errnoValue); }
};

struct FsyncFailed {
  static constexpr std::string_view format = "fsync({}) failed: errno {}";
  std::string path;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, errnoValue); }
};

struct InstallBusy {
  static constexpr std::string_view format = "another installer holds {}";
  std::string path;
  std::string text() const { return fmt::format(format, path); }
};

struct InstallPathUnsafe {
  static constexpr std::string_view format = "unsafe installer path {}: {}";
  static constexpr std::string_view oldArtifactStays =
      "the new artifact is in place, but the old one could not be removed: {}";
  std::string path;
  std::string detail;
  std::string text() const { return fmt::format(format, path, detail); }
};

struct InstallStateMissing {
  static constexpr std::string_view format = "no resumable install state exists for {}";
  std::string path;
  std::string text() const { return fmt::format(format, path); }
};

struct InstallStateCorrupt {
  static constexpr std::string_view format = "install state at {} is corrupt: {}";
  static constexpr std::string_view halfThere = "partial directory and checkpoint must exist together";
  static constexpr std::string_view rangeChanged = "{} changed after it was finished";
  static constexpr std::string_view fileChanged = "changed after it was recorded";
  static constexpr std::string_view paddingChanged = "bytes outside every range changed; they were put back";
  std::string path;
  std::string detail;
  std::string text() const { return fmt::format(format, path, detail); }
};

struct InstallStateIncompatible {
  static constexpr std::string_view format = "install state is incompatible: {}";
  static constexpr std::string_view savedDownloadExists = "saved download exists; resume or discard it";
  std::string detail;
  std::string text() const { return fmt::format(format, detail); }
};

struct PromotionUnsupported {
  static constexpr std::string_view format = "atomic directory promotion is unsupported for {}: errno {}";
  std::string path;
  std::int32_t errnoValue;
  std::string text() const { return fmt::format(format, path, errnoValue); }
};

struct SafetensorsHeaderTooLarge {
  static constexpr std::string_view format = "safetensors header at {} size {} exceeds bound";
  std::string path;
  std::uint64_t size;
  std::string text() const { return fmt::format(format, path, size); }
};

struct SafetensorsHeaderInvalid {
  static constexpr std::string_view format = "safetensors header at {} invalid: {}";
  std::string path;
  std::string detail;
  std::string text() const { return fmt::format(format, path, detail); }
};

struct SafetensorsUnknownDtype {
  static constexpr std::string_view format = "safetensors at {} has unsupported dtype {}";
  std::string path;
  std::string dtype;
  std::string text() const { return fmt::format(format, path, dtype); }
};

struct SafetensorsTensorOutOfRange {
  static constexpr std::string_view format = "safetensors {}: tensor {} ends at {}, file size {}";
  std::string path;
  std::string name;
  std::uint64_t end;
  std::uint64_t fileSize;
  std::string text() const { return fmt::format(format, path, name, end, fileSize); }
};

struct IndexJsonInvalid {
  static constexpr std::string_view format = "index.json {} invalid: {}";
  std::string path;
  std::string detail;
  std::string text() const { return fmt::format(format, path, detail); }
};

struct ConfigJsonInvalid {
  static constexpr std::string_view format = "config.json {} invalid: {}";
  std::string path;
  std::string detail;
  std::string text() const { return fmt::format(format, path, detail); }
};

/// Nothing throws it today; it completes the set.
struct QuantOverrideCountMismatch {
  std::int64_t expected;
  std::int64_t actual;
  /// At most five are shown.
  std::vector<std::string> sample;
  std::string text() const;
};

/// Nothing throws it today: the planner looks only for tensors that the index lists.
struct MissingTensor {
  static constexpr std::string_view format = "expected tensor missing: {}";
  std::string name;
  std::string text() const { return fmt::format(format, name); }
};

struct UnknownTensorPrefix {
  static constexpr std::string_view format = "unknown tensor prefix: {}";
  std::string name;
  std::string text() const { return fmt::format(format, name); }
};

struct MissingScalesCompanion {
  static constexpr std::string_view format = "quantized tensor {} missing .scales companion";
  std::string name;
  std::string text() const { return fmt::format(format, name); }
};

struct MissingBiasesCompanion {
  static constexpr std::string_view format = "quantized tensor {} missing .biases companion";
  std::string name;
  std::string text() const { return fmt::format(format, name); }
};

struct ShapeMismatch {
  static constexpr std::string_view format = "shape mismatch for {}: {}";
  std::string name;
  std::string detail;
  std::string text() const { return fmt::format(format, name, detail); }
};

struct DtypeMismatch {
  static constexpr std::string_view format = "dtype mismatch for {}: {}";
  std::string name;
  std::string detail;
  std::string text() const { return fmt::format(format, name, detail); }
};

struct SourceFingerprintRejected {
  static constexpr std::string_view format = "source fingerprint {} for {} is not in known set";
  std::string path;
  std::string sha256;
  std::string text() const { return fmt::format(format, sha256, path); }
};

struct RemoteProtocolInvalid {
  static constexpr std::string_view format = "remote protocol invalid: {}";
  std::string detail;
  std::string text() const { return fmt::format(format, detail); }
};

/// Nothing throws it today: a refused answer is always known whole, see `RemoteHTTPResponse`.
struct RemoteHTTPStatus {
  static constexpr std::string_view format = "remote HTTP {}: {}";
  std::string url;
  std::int64_t status;
  std::string text() const { return fmt::format(format, status, url); }
};

struct RemoteHTTPResponse {
  static constexpr std::string_view format = "remote HTTP {}: {}";
  std::string url;
  std::int64_t status;
  std::optional<std::string> retryAfter;
  std::string text() const {
    return fmt::format(format, status, url) + (retryAfter ? ", Retry-After " + *retryAfter : "");
  }
};

struct RemoteBodyTruncated {
  static constexpr std::string_view format = "remote body for {} was truncated: expected {}, received {}";
  std::string path;
  std::uint64_t expected;
  std::uint64_t actual;
  std::string text() const { return fmt::format(format, path, expected, actual); }
};

struct RemoteBodyExceeded {
  static constexpr std::string_view format = "remote body for {} exceeded {} bytes at {} bytes";
  std::string path;
  std::uint64_t limit;
  std::uint64_t attempted;
  std::string text() const { return fmt::format(format, path, limit, attempted); }
};

struct RemoteRedirectRejected {
  static constexpr std::string_view format = "remote redirect rejected for {}: {}";
  std::string url;
  std::string detail;
  std::string text() const { return fmt::format(format, url, detail); }
};

struct RemoteRetryDelayExceeded {
  static constexpr std::string_view format = "remote Retry-After {} exceeds {}-second cap";
  std::string value;
  std::uint64_t capSeconds;
  std::string text() const { return fmt::format(format, value, capSeconds); }
};

struct RemoteFileTooLarge {
  static constexpr std::string_view format = "remote file {} size {} exceeds cap {}";
  std::string path;
  std::uint64_t size;
  std::uint64_t cap;
  std::string text() const { return fmt::format(format, path, size, cap); }
};

struct DiskSpaceInsufficient {
  static constexpr std::string_view format = "insufficient disk space for {}: required {}, available {}";
  std::string path;
  std::uint64_t required;
  std::uint64_t available;
  std::string text() const { return fmt::format(format, path, required, available); }
};

struct ScratchExceeded {
  static constexpr std::string_view format = "resident index size {} exceeds limit {}";
  std::int64_t requested;
  std::int64_t limit;
  std::string text() const { return fmt::format(format, requested, limit); }
};

struct ConfigurationInvalid {
  static constexpr std::string_view format = "configuration invalid: {}";
  static constexpr std::string_view outputExists = "output directory already exists: {}";
  static constexpr std::string_view invalidEndpoint = "HF_ENDPOINT is not an https URL with a host";
  static constexpr std::string_view invalidToken =
      "the access token contains characters that an Authorization header cannot carry";
  std::string detail;
  std::string text() const { return fmt::format(format, detail); }
};

/// The core's one error.
class RepackError : public std::exception {
 public:
  using Payload = std::variant<
      FileOpenFailed, FileStatFailed, FtruncateFailed, PwriteShort, PreadShort, RenameFailed, FsyncFailed,
      InstallBusy, InstallPathUnsafe, InstallStateMissing, InstallStateCorrupt, InstallStateIncompatible,
      PromotionUnsupported, SafetensorsHeaderTooLarge, SafetensorsHeaderInvalid, SafetensorsUnknownDtype,
      SafetensorsTensorOutOfRange, IndexJsonInvalid, ConfigJsonInvalid, QuantOverrideCountMismatch,
      MissingTensor, UnknownTensorPrefix, MissingScalesCompanion, MissingBiasesCompanion, ShapeMismatch,
      DtypeMismatch, SourceFingerprintRejected, RemoteProtocolInvalid, RemoteHTTPStatus, RemoteHTTPResponse,
      RemoteBodyTruncated, RemoteBodyExceeded, RemoteRedirectRejected, RemoteRetryDelayExceeded,
      RemoteFileTooLarge, DiskSpaceInsufficient, ScratchExceeded, ConfigurationInvalid>;

  template <typename Failure>
  requires std::constructible_from<Payload, std::in_place_type_t<Failure>, Failure> RepackError(
      Failure failure)
      : text_(failure.text()), payload_(std::move(failure)) {}

  const Payload& payload() const noexcept { return payload_; }
  /// The failure when it is this case, or nullptr.
  template <typename Failure>
  const Failure* as() const noexcept {
    return std::get_if<Failure>(&payload_);
  }
  /// The whole text; `what()` ends at a NUL character, which a hostile name may hold.
  const std::string& description() const noexcept { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
  Payload payload_;
};

/// The surrounding operation was cancelled. It always leaves a resumable state.
class CancellationError : public std::exception {
 public:
  const char* what() const noexcept override { return "cancelled"; }
};

/// A failure of the HTTP client itself, apart from any answer of a server. `what()` is one sentence for a
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
