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
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Options.h"
#include "VellicorTerminal/Units.h"

namespace vellicor {

namespace {

constexpr std::string_view speaker = "VellicorInspect";

InspectOutcome failure(std::string_view text) {
  return {.status = 1, .output = "", .errors = errorLine(fmt::format("{}: {}", speaker, text))};
}

/// Answers one request with the text for standard output.
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
    return fmt::format("{}: {}, {}, {}\n", escaped(bytes.tensor->name), bytes.tensor->dtype,
                       shapeText(bytes.shape), exactBytesText(bytes.totalBytes));
  }
};

}  // namespace

InspectOutcome inspect(const std::vector<std::string>& arguments, std::optional<std::size_t> width) try {
  const InspectArguments parsed = parseInspectArguments(arguments);
  return {.status = 0, .output = std::visit(Answer{parsed, width}, parsed.request), .errors = ""};
} catch (const UsageError& error) {
  return {.status = 2, .output = "", .errors = usageErrorText(speaker, error.what(), inspectUsage)};
} catch (const RepackError& error) {
  return failure(error.description());
} catch (const std::exception& error) {
  return failure(reasonOf(error));
}

}  // namespace vellicor
