#include "VellicorLab/HubRepository.h"

#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor {

namespace {

std::string digest(std::string_view domain, std::string_view fingerprint) {
  FingerprintWriter writer;
  writer.append(domain);
  writer.append(fingerprint);
  return writer.finalizeHexString();
}

}  // namespace

HubFileIdentity HubFileIdentity::small(std::string_view fingerprint) {
  return {digest("git", fingerprint).substr(0, 40), std::nullopt};
}

HubFileIdentity HubFileIdentity::large(std::string_view fingerprint) {
  return {digest("lfs", fingerprint), digest("xet", fingerprint)};
}

}  // namespace vellicor
