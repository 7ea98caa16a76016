#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Remote/HttpTransport.h"
#include "VellicorRepackCore/Remote/RemoteRedirect.h"

namespace vellicor {

/// The answer to one range request must match this.
struct RemoteRangeExpectation {
  /// Repository-relative, for messages.
  std::string filename;
  std::uint64_t offset = 0;
  /// At least 1.
  std::uint64_t length = 0;
  /// The whole file's size.
  std::uint64_t totalSize = 0;
  /// The file's content hash, if the hub gave one.
  std::optional<std::string> xetHash;
  bool operator==(const RemoteRangeExpectation&) const = default;
};

struct RemoteRangeTransferResult {
  std::string path;
  std::uint64_t byteCount = 0;
  bool operator==(const RemoteRangeTransferResult&) const = default;
};

/// Receives the number of bytes received so far.
using RemoteProgressCallback = std::function<void(std::uint64_t)>;

/// Proves one answer to be exactly the requested, uncompressed, unchanged range and writes it to the target
/// as it comes, never holding more than the piece at hand. One object per transfer; it shows each hop to
/// `HttpTransport` and is asked afterwards whether to follow a redirect.
class RemoteRangeTransferDelegate final : public HttpObserver {
 public:
  RemoteRangeTransferDelegate(std::string targetPath, RemoteRangeExpectation expectation, int fd,
                              RemoteProgressCallback progress);

  void onResponse(const HttpResponseHead& head) override;
  void onData(std::span<const std::byte> bytes) override;

  /// The redirect that the last hop answered with, if it did.
  const std::optional<HttpResponseHead>& redirect() const { return redirect_; }
  /// Forgets a redirect before the next hop.
  void beginHop();

  /// Throws unless exactly the range has arrived.
  RemoteRangeTransferResult finish() const;

 private:
  void validate(const HttpResponseHead& response) const;
  void reportProgress();

  std::string targetPath_;
  RemoteRangeExpectation expectation_;
  int fd_;
  RemoteProgressCallback progress_;
  std::optional<HttpResponseHead> redirect_;
  std::uint64_t redirectBodyBytes_ = 0;
  bool responseAccepted_ = false;
  std::uint64_t receivedBytes_ = 0;
  std::optional<std::chrono::steady_clock::time_point> lastProgress_;
};

struct RemoteRangeTransfer {
  /// Sends the request, follows its redirects and streams the range into `targetPath`, which must not exist
  /// and is created with that mode.
  /// The file exists afterwards exactly when the transfer succeeded; it is not synced.
  static RemoteRangeTransferResult run(HttpTransport& transport, const HttpHopLimits& limits,
                                       const HttpRequest& request, const std::string& targetPath,
                                       const RemoteRangeExpectation& expectation, int maximumRedirects,
                                       const RemoteProgressCallback& progress, const CancellationToken& stop,
                                       Posix::FileMode mode);
};

}  // namespace vellicor
