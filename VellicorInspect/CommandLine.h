#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellicorInspect/OutputFile.h"

namespace vellicor {

/// The usage text, without a line feed behind its last line.
extern const std::string_view inspectUsage;

/// Arguments that make no sense.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct HelpRequest {};
struct SummaryRequest {};
struct TensorsRequest {
  std::vector<std::string> globs;
};
struct LayersRequest {};
struct PictureRequest {
  std::string file;
  OutputFile::Existing existing;
};
struct ExportRequest {
  std::string tensor;
  std::optional<std::int64_t> expert;
  std::string file;
  OutputFile::Existing existing;
};

struct InspectArguments {
  std::string model;
  /// JSON instead of a table; of a summary and of lists only.
  bool json = false;
  std::variant<HelpRequest, SummaryRequest, TensorsRequest, LayersRequest, PictureRequest, ExportRequest>
      request;
};

/// The first argument is the program's own name. Throws `UsageError`.
InspectArguments parseInspectArguments(const std::vector<std::string>& arguments);

}  // namespace vellicor
