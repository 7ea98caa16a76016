#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellicorInspect/OutputFile.h"

namespace vellicor {

/// Without a line feed at its end.
extern const std::string_view inspectUsage;

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
  /// JSON instead of a table, for a summary and for lists.
  bool json = false;
  std::variant<HelpRequest, SummaryRequest, TensorsRequest, LayersRequest, PictureRequest, ExportRequest>
      request;
};

/// The first argument is the program's own name. Throws `UsageError`.
InspectArguments parseInspectArguments(const std::vector<std::string>& arguments);

}  // namespace vellicor
