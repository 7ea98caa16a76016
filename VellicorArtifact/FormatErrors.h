#pragma once

#include <string>

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

/// Returns what `operation` returns. The format library's error becomes `ConfigurationInvalid`
/// "<prefix>: <its text>".
template <typename Operation>
auto withFormatErrors(const std::string& prefix, Operation&& operation) {
  try {
    return operation();
  } catch (const MorlenFormatError& error) {
    throw RepackError(ConfigurationInvalid{prefix + ": " + error.description()});
  }
}

}  // namespace vellicor
