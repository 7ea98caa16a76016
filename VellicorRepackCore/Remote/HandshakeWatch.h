#pragma once

#include <string>

namespace vellicor {

/// What OpenSSL itself tells of the TLS handshakes of libcurl's connections: libcurl reports one code for a
/// connection that ends within the handshake, which a later try may get through, and for one that cannot be
/// secured. Where libcurl uses another TLS library, the watch sees that a handshake begins and no more.
/// It must outlive the connections; all calls and handshakes are on one thread.
class HandshakeWatch {
 public:
  /// Whether libcurl's TLS contexts are those of the OpenSSL that is linked here.
  static bool sharesOpenSsl();

  HandshakeWatch() = default;
  HandshakeWatch(const HandshakeWatch&) = delete;
  HandshakeWatch& operator=(const HandshakeWatch&) = delete;

  /// To be called with each new TLS context of libcurl's. Also makes an abrupt end of its stream an end like
  /// any other.
  void begin(void* tlsContext);
  /// Forgets what was seen.
  void forget();

  bool hasBegun() const { return hasBegun_; }
  /// The newest handshake ended because the connection did, in good order or not.
  bool isCutOff() const { return isCutOff_; }
  /// Why it failed otherwise, in OpenSSL's words for its code; "" when unknown.
  const std::string& reason() const { return reason_; }

 private:
  struct Hook;

  bool hasBegun_ = false;
  bool isCutOff_ = false;
  std::string reason_;
};

}  // namespace vellicor
