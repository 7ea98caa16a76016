#include "VellicorInspect/CommandLine.h"

#include <charconv>
#include <cstddef>
#include <utility>

#include "VellicorTerminal/Options.h"

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

/// The arguments before it is known whether they make sense together.
struct Scanned {
  std::optional<std::string> model, svg, tensor, output, expert;
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
  const std::vector<Option> options = {{"--help", &scanned.help},     {"--tensors", &scanned.tensors},
                                       {"--layers", &scanned.layers}, {"--json", &scanned.json},
                                       {"--force", &scanned.force},   {"--match", &scanned.globs},
                                       {"--svg", &scanned.svg},       {"--tensor", &scanned.tensor},
                                       {"--expert", &scanned.expert}, {"--output", &scanned.output}};
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    if (takeOption(options, arguments, i)) continue;
    if (arguments[i].starts_with("-") || scanned.model) throw UsageError::unknown(arguments[i]);
    scanned.model = arguments[i];
  }
  return scanned;
}

void requireSense(const Scanned& scanned) {
  if (!scanned.model) throw UsageError::missingRequired("<model.morlen>");
  if (scanned.tensors + scanned.layers + scanned.svg.has_value() + scanned.tensor.has_value() > 1) {
    throw UsageError("--tensors, --layers, --svg and --tensor are mutually exclusive");
  }
  if (scanned.tensor && !scanned.output) throw UsageError::missingRequired("--output");
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
  const auto expert = scanned.expert ? std::optional(expertNumber(*scanned.expert)) : std::nullopt;
  requireSense(scanned);
  InspectArguments parsed{.model = *scanned.model, .json = scanned.json, .request = SummaryRequest{}};
  const auto existing = scanned.force ? OutputFile::Existing::replace : OutputFile::Existing::refuse;
  if (scanned.tensors) parsed.request = TensorsRequest{std::move(scanned.globs)};
  if (scanned.layers) parsed.request = LayersRequest{};
  if (scanned.svg) parsed.request = PictureRequest{*scanned.svg, existing};
  if (scanned.tensor) {
    parsed.request = ExportRequest{*scanned.tensor, expert, *scanned.output, existing};
  }
  return parsed;
}

}  // namespace vellicor
