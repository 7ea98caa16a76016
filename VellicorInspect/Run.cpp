#include "VellicorInspect/Run.h"

#include <exception>
#include <string_view>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "VellicorInspect/CommandLine.h"
#include "VellicorInspect/JsonReport.h"
#include "VellicorInspect/Picture.h"
#include "VellicorInspect/Report.h"
#include "VellicorInspect/TensorExport.h"
#include "VellicorInspect/Text.h"
#include "VellicorTerminal/SafeText.h"

namespace vellicor {

namespace {

InspectOutcome failure(int status, std::string_view text, std::string_view more = "") {
  return {.status = status,
          .output = "",
          .errors = fmt::format("VellicorInspect: {}\n{}", printable(text), more)};
}

/// Answers one request with what goes to standard output.
struct Answer {
  const InspectArguments& arguments;
  std::optional<std::size_t> width;

  std::string operator()(const HelpRequest&) const { return fmt::format("{}\n", inspectUsage); }

  std::string operator()(const SummaryRequest&) const {
    const Inspection inspection(arguments.model);
    return arguments.json ? summaryJson(inspection) : summaryText(inspection);
  }

  std::string operator()(const TensorsRequest& request) const {
    const Inspection inspection(arguments.model);
    const auto tensors = matchingTensors(inspection.tensors, request.globs);
    return arguments.json ? tensorsJson(tensors, inspection.artifact.manifest().expertStride)
                          : tensorsText(tensors, width);
  }

  std::string operator()(const LayersRequest&) const {
    const Inspection inspection(arguments.model);
    return arguments.json ? layersJson(inspection) : layersText(inspection, width);
  }

  std::string operator()(const PictureRequest& request) const {
    const Inspection inspection(arguments.model);
    OutputFile file(request.file, request.existing);
    file.append(picture(inspection));
    file.finish();
    return "";
  }

  std::string operator()(const ExportRequest& request) const {
    const Inspection inspection(arguments.model);
    const TensorBytes bytes = tensorBytes(inspection.tensors, request.tensor, request.expert);
    OutputFile file(request.file, request.existing);
    copyTensor(inspection.artifact, bytes, file);
    file.finish();
    return fmt::format("{}: {}, {}, {}\n", printable(bytes.tensor->name), bytes.tensor->dtype,
                       shapeText(bytes.shape), exactBytes(bytes.totalBytes));
  }
};

}  // namespace

InspectOutcome inspect(const std::vector<std::string>& arguments, std::optional<std::size_t> width) try {
  const InspectArguments parsed = parseInspectArguments(arguments);
  return {.status = 0, .output = std::visit(Answer{parsed, width}, parsed.request), .errors = ""};
} catch (const UsageError& error) {
  return failure(2, error.what(), fmt::format("\n{}\n", inspectUsage));
} catch (const RepackError& error) {
  return failure(1, error.description());
} catch (const std::exception& error) {
  return failure(1, reasonOf(error));
}

}  // namespace vellicor
