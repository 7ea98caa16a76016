#include "VellicorLab/LabCertificate.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace vellicor {

namespace {

template <auto free>
struct Free {
  template <typename T>
  void operator()(T* object) const noexcept {
    free(object);
  }
};
template <typename T, auto free>
using Owned = std::unique_ptr<T, Free<free>>;

constexpr long secondsPerDay = 86400;

void require(bool succeeded, std::string_view step) {
  if (succeeded) return;
  char reason[256] = "";
  ERR_error_string_n(ERR_get_error(), reason, sizeof(reason));
  throw std::runtime_error(fmt::format("the certificate could not be made: {}: {}", step, reason));
}

std::string alternativeName(const std::string& name) {
  unsigned char address[16];
  const bool isAddress =
      inet_pton(AF_INET, name.c_str(), address) == 1 || inet_pton(AF_INET6, name.c_str(), address) == 1;
  return (isAddress ? "IP:" : "DNS:") + name;
}

void addExtension(X509* certificate, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, value);
}

void setName(X509* certificate, const std::string& name) {
  X509_NAME* subject = X509_get_subject_name(certificate);
  const auto* text = reinterpret_cast<const unsigned char*>(name.c_str());
  require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, text, -1, -1, 0) == 1, name);
  require(X509_set_issuer_name(certificate, subject) == 1, "issuer");
}

// Clients refuse two certificates of one issuer with one serial number.
void setSerialNumber(X509* certificate) {
  std::uint32_t serial = 0;
  require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) == 1, "random number");
  require(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial) == 1, "serial number");
}

template <typename Write>
std::string pem(Write write) {
  const Owned<BIO, BIO_free_all> memory(BIO_new(BIO_s_mem()));
  require(memory && write(memory.get()) == 1, "PEM");
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

}  // namespace

LabCertificate LabCertificate::make(const std::vector<std::string>& names) {
  const Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
  require(key != nullptr, "key");
  const Owned<X509, X509_free> certificate(X509_new());
  require(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1, "version");
  setSerialNumber(certificate.get());
  require(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -secondsPerDay) != nullptr, "start");
  require(X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 30 * secondsPerDay) != nullptr, "end");
  require(X509_set_pubkey(certificate.get(), key.get()) == 1, "public key");
  setName(certificate.get(), names.at(0));

  std::vector<std::string> alternatives;
  alternatives.reserve(names.size());
  for (const std::string& name : names) alternatives.push_back(alternativeName(name));
  addExtension(certificate.get(), NID_subject_alt_name, fmt::format("{}", fmt::join(alternatives, ",")));
  // Its own authority, so that a client can be told to trust just this one.
  addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
  addExtension(certificate.get(), NID_ext_key_usage, "serverAuth");
  require(X509_sign(certificate.get(), key.get(), EVP_sha256()) != 0, "signature");

  return {
      .certificate = pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate.get()); }),
      .privateKey = pem([&](BIO* out) {
        return PEM_write_bio_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
      }),
  };
}

}  // namespace vellicor
