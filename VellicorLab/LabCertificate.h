#pragma once

#include <string>
#include <vector>

namespace vellicor {

/// A throw-away self-signed server certificate and its key, both PEM.
struct LabCertificate {
  std::string certificate;
  std::string privateKey;

  /// `names` are host names or IP addresses. Valid from a day ago for 30 days.
  static LabCertificate make(const std::vector<std::string>& names);
};

}  // namespace vellicor
