#include "VellicorRepackCore/Remote/HandshakeWatch.h"

#include <string_view>

#include <curl/curl.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace vellicor {

namespace {

// The words for what the other side itself says, an alert, are the same in every version.
std::string wordsOf(unsigned long error) {
  const int reason = ERR_GET_REASON(error);
  if (ERR_GET_LIB(error) == ERR_LIB_SSL && reason > SSL_AD_REASON_OFFSET) {
    return fmt::format("alert \"{}\"", SSL_alert_desc_string_long(reason - SSL_AD_REASON_OFFSET));
  }
  const char* words = ERR_reason_error_string(error);
  return words == nullptr ? "" : words;
}

}  // namespace

struct HandshakeWatch::Hook {
  // Where a context keeps its watch.
  static int slot() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
  }

  static void onEvent(const SSL* connection, int event, int result) {
    if (event != SSL_CB_CONNECT_EXIT || result > 0) return;
    auto* watch = static_cast<HandshakeWatch*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), slot()));
    const int outcome = SSL_get_error(connection, result);
    const unsigned long error = ERR_peek_last_error();
    const bool isUnexpectedEnd =
        ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
    if (outcome == SSL_ERROR_SYSCALL || outcome == SSL_ERROR_ZERO_RETURN || isUnexpectedEnd) {
      watch->isCutOff_ = true;
    } else if (outcome == SSL_ERROR_SSL) {
      watch->reason_ = wordsOf(error);
    }
  }
};

bool HandshakeWatch::sharesOpenSsl() {
  const char* backend = curl_version_info(CURLVERSION_NOW)->ssl_version;
  return backend != nullptr &&
         std::string_view(backend).starts_with(fmt::format("OpenSSL/{}.", OPENSSL_version_major()));
}

void HandshakeWatch::begin(void* tlsContext) {
  forget();
  hasBegun_ = true;
  if (!sharesOpenSsl()) return;
  auto* context = static_cast<SSL_CTX*>(tlsContext);
  // An abrupt end of stream is then an end like any other, and counting bytes finds what is missing.
  SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
  if (SSL_CTX_set_ex_data(context, Hook::slot(), this) == 1) {
    SSL_CTX_set_info_callback(context, &Hook::onEvent);
  }
}

void HandshakeWatch::forget() {
  hasBegun_ = false;
  isCutOff_ = false;
  reason_.clear();
}

}  // namespace vellicor
