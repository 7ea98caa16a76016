#include "Tests/Support/Expect.h"
#include "VellicorInspect/CommandLine.h"

namespace vellicor::testing {
namespace {

/// One line that names the request and everything it carries.
struct Describer {
  std::string operator()(const HelpRequest&) const { return "help"; }
  std::string operator()(const SummaryRequest&) const { return "summary"; }
  std::string operator()(const TensorsRequest& request) const {
    return fmt::format("tensors {}", fmt::join(request.globs, " "));
  }
  std::string operator()(const LayersRequest&) const { return "layers"; }
  std::string operator()(const PictureRequest& request) const {
    return fmt::format("svg {}, {}", request.file, fmt::underlying(request.existing));
  }
  std::string operator()(const ExportRequest& request) const {
    return fmt::format("tensor {} expert {} to {}, {}", request.tensor, request.expert.value_or(-1),
                       request.file, fmt::underlying(request.existing));
  }
};

std::string parsed(Words words) {
  words.insert(words.begin(), "VellicorInspect");
  std::string text;
  const std::string error = errorText([&] {
    const InspectArguments arguments = parseInspectArguments(words);
    text = fmt::format("{}: {}{}", arguments.model, std::visit(Describer{}, arguments.request),
                       arguments.json ? " as JSON" : "");
  });
  return error == "no error" ? text : error;
}

TEST(InspectCommandLine, YieldsARequestOrSaysWhatIsWrong) {
  const std::vector<std::pair<Words, std::string>> rows = {
      {{"m"}, "m: summary"},
      {{"m", "--bogus", "--help"}, "unknown argument: --bogus"},
      {{"--layers", "--help"}, ": help"},
      {{"m", "--tensors", "--match", "*.a", "--match", "--json", "--json"}, "m: tensors *.a --json as JSON"},
      {{"m", "--layers"}, "m: layers"},
      {{"m", "--svg", "f", "--force"}, "m: svg f, 1"},
      {{"m", "--tensor", "t", "--output", "o"}, "m: tensor t expert -1 to o, 0"},
      {{"m", "--tensor", "t", "--expert", "7", "--output", "o", "--force"}, "m: tensor t expert 7 to o, 1"},
      {{}, "missing required argument: <model.morlen>"},
      {{"m", "n"}, "unknown argument: n"},
      {{"m", "--svg"}, "missing value for --svg"},
      {{"m", "--tensor", "t"}, "missing required argument: --output"},
      {{"m", "--tensor", "t", "--layers", "--output", "o"},
       "--tensors, --layers, --svg and --tensor are mutually exclusive"},
      {{"m", "--output", "o"}, "--output and --expert require --tensor"},
      {{"m", "--expert", "-1"}, "--expert needs a number of 0 or more: -1"},
      {{"m", "--expert", "1x"}, "--expert needs a number of 0 or more: 1x"},
      {{"m", "--layers", "--match", "*"}, "--match requires --tensors"},
      {{"m", "--svg", "f", "--json"}, "--json goes with neither --svg nor --tensor"},
      {{"m", "--force"}, "--force requires --svg or --tensor"},
  };
  for (const auto& [words, expected] : rows) {
    EXPECT_EQ(parsed(words), expected) << fmt::format("{}", fmt::join(words, " "));
  }
}

}  // namespace
}  // namespace vellicor::testing
