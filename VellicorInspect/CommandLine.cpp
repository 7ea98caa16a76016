#include "VellicorInspect/CommandLine.h"

#include <charconv>
#include <cstddef>
#include <utility>

namespace vellicor {

const std::string_view inspectUsage =
    "Usage:\n"
    "  VellicorInspect <model.morlen> [--json]\n"
    "  VellicorInspect <model.morlen> --tensors [--match <glob>]... [--json]\n"
    "  VellicorInspect <model.morlen> --layers [--json]\n"
    "  VellicorInspect <model.morlen> --svg <file> [--force]\n"
    "  VellicorInspect <model.morlen> --tensor <name> [--expert <number>]\n"
    "                  --output <file> [--force]\n"
    "  VellicorInspect --help\n"
    "\n"
    "Shows what an artifact holds: a summary, its tensors (of names that match one of\n"
    "the globs), its layers, a picture of where the bytes are, or the bytes of one\n"
    "tensor. Sizes are checked, and the digest of layout.json; the other digests are\n"
    "not (VellicorRepack --verify-install proves them). --force replaces a file that\n"
    "exists.";

namespace {

/// What the arguments said, before it is known whether it makes sense together.
struct Scanned {
  std::optional<std::string> model, svg, tensor, output;
  std::optional<std::int64_t> expert;
  std::vector<std::string> globs;
  bool tensors = false, layers = false, json = false, force = false, help = false;
};

std::int64_t expertNumber(const std::string& text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || parsed != end || number < 0) {
    throw UsageError("--expert needs a number of 0 or more: " + text);
  }
  return number;
}

Scanned scan(const std::vector<std::string>& arguments) {
  Scanned scanned;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    const auto value = [&]() -> const std::string& {
      if (i + 1 == arguments.size()) throw UsageError("missing value for " + argument);
      return arguments[++i];
    };
    if (argument == "--help") {
      scanned.help = true;
    } else if (argument == "--tensors") {
      scanned.tensors = true;
    } else if (argument == "--layers") {
      scanned.layers = true;
    } else if (argument == "--json") {
      scanned.json = true;
    } else if (argument == "--force") {
      scanned.force = true;
    } else if (argument == "--match") {
      scanned.globs.push_back(value());
    } else if (argument == "--svg") {
      scanned.svg = value();
    } else if (argument == "--tensor") {
      scanned.tensor = value();
    } else if (argument == "--expert") {
      scanned.expert = expertNumber(value());
    } else if (argument == "--output") {
      scanned.output = value();
    } else if (argument.starts_with("-") || scanned.model) {
      throw UsageError("unknown argument: " + argument);
    } else {
      scanned.model = argument;
    }
  }
  return scanned;
}

void requireSense(const Scanned& scanned) {
  if (!scanned.model) throw UsageError("missing required argument: <model.morlen>");
  if (scanned.tensors + scanned.layers + scanned.svg.has_value() + scanned.tensor.has_value() > 1) {
    throw UsageError("--tensors, --layers, --svg and --tensor are mutually exclusive");
  }
  if (scanned.tensor && !scanned.output) throw UsageError("missing required argument: --output");
  if (!scanned.tensor && (scanned.output || scanned.expert)) {
    throw UsageError("--output and --expert require --tensor");
  }
  if (!scanned.tensors && !scanned.globs.empty()) throw UsageError("--match requires --tensors");
  const bool writesFile = scanned.svg || scanned.tensor;
  if (scanned.json && writesFile) throw UsageError("--json goes with neither --svg nor --tensor");
  if (scanned.force && !writesFile) throw UsageError("--force requires --svg or --tensor");
}

}  // namespace

InspectArguments parseInspectArguments(const std::vector<std::string>& arguments) {
  Scanned scanned = scan(arguments);
  if (scanned.help) return {.model = "", .request = HelpRequest{}};
  requireSense(scanned);
  InspectArguments parsed{.model = *scanned.model, .json = scanned.json, .request = SummaryRequest{}};
  const auto existing = scanned.force ? OutputFile::Existing::replace : OutputFile::Existing::refuse;
  if (scanned.tensors) parsed.request = TensorsRequest{std::move(scanned.globs)};
  if (scanned.layers) parsed.request = LayersRequest{};
  if (scanned.svg) parsed.request = PictureRequest{*scanned.svg, existing};
  if (scanned.tensor) {
    parsed.request = ExportRequest{*scanned.tensor, scanned.expert, *scanned.output, existing};
  }
  return parsed;
}

}  // namespace vellicor
