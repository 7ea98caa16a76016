#include <csignal>
#include <regex>

#include <nlohmann/json.hpp>
#include <sys/resource.h>

#include "Tests/Support/Expect.h"
#include "VellicorInspect/OutputFile.h"
#include "VellicorInspect/Run.h"
#include "VellicorInspect/Table.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/PredictedArtifact.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorTerminal/Signals.h"

namespace vellicor::testing {
namespace {

using nlohmann::json;

const std::string weights = "model_weights.bin";
const std::string layout = "packed_experts/layout.json";
const std::string gate = "layers.1.experts.gate";

/// A checkpoint and the artifact that an install of it leaves, on disk and in memory.
struct Sample {
  explicit Sample(std::shared_ptr<SyntheticCheckpoint> source = SyntheticCheckpoint::custom({}, 3))
      : checkpoint(std::move(source)), files(PredictedArtifact(*checkpoint).contents()) {
    for (const auto& [path, content] : files) write(path, content);
  }

  InspectOutcome run(Words words, std::optional<std::size_t> width = {}) const {
    words.insert(words.begin(), {"VellicorInspect", root});
    return inspect(words, width);
  }
  json answer(const Words& words) const {
    const InspectOutcome outcome = run(words);
    EXPECT_EQ(outcome.errors, "");
    return json::parse(outcome.output);
  }
  void write(const std::string& path, const std::string& content) const {
    writeFile(root + "/" + path, content);
  }
  /// Puts other content in a file, and its size and digest into the manifest.
  void relist(const std::string& path, const std::string& content) const {
    write(path, content);
    editManifest([&](json& manifest) {
      manifest["files"][path] = {{"size", content.size()}, {"sha256", hashData(content)}};
    });
  }
  void editManifest(const std::function<void(json&)>& edit) const {
    json manifest = json::parse(readFile(root + "/manifest.json"));
    edit(manifest);
    write("manifest.json", manifest.dump());
  }
  void replace(const std::string& path, const std::string& from, const std::string& to) const {
    std::string content = readFile(root + "/" + path);
    content.replace(content.find(from), from.size(), to);
    write(path, content);
  }
  std::string bytesOf(const SyntheticCheckpoint::StoredTensor& tensor) const {
    std::string bytes(tensor.size, '\0');
    tensor.file->read(tensor.offset, std::as_writable_bytes(std::span(bytes)));
    return bytes;
  }
  Words filesMade() const {
    Words names;
    for (const auto& entry : fs::directory_iterator(out.path())) names.push_back(entry.path().filename());
    return names;
  }

  TemporaryDirectory directory, out;
  std::string root = directory / "m.morlen";
  std::shared_ptr<SyntheticCheckpoint> checkpoint;
  std::map<std::string, std::string> files;
};

/// Under which name an artifact has a tensor of the checkpoint, if it has it.
std::string artifactName(const std::string& source) {
  static const std::regex expert(R"(.*\.layers\.(\d+)\.experts\.switch_glu\.(\w+)_proj\.(\w+))");
  std::smatch match;
  if (std::regex_match(source, match, expert)) {
    return fmt::format("layers.{}.experts.{}{}", match.str(1), match.str(2),
                       match.str(3) == "weight" ? "" : "_" + match.str(3));
  }
  if (!source.starts_with("language_model.")) return "";
  return std::regex_replace(source, std::regex(R"(\.(scales|biases)$)"), ".weight.$1");
}

TEST(Inspect, ListsEveryTensorWhereTheCheckpointsBytesAre) {
  const Sample sample(SyntheticCheckpoint::miniature(5));
  std::map<std::string, json> listed;
  for (const json& tensor : sample.answer({"--tensors", "--json"})) listed[tensor["name"]] = tensor;

  std::size_t compared = 0;
  for (const auto& [source, tensor] : sample.checkpoint->tensors()) {
    const std::string name = artifactName(source);
    if (name.empty()) continue;
    SCOPED_TRACE(name);
    ASSERT_TRUE(listed.contains(name));
    const json& found = listed[name];
    ++compared;
    const bool isPacked = tensor.dtype == "U32";
    const std::uint64_t bits = name.find(".router.") == std::string::npos ? 4 : 8;
    std::vector<std::uint64_t> shape = tensor.shape;
    if (isPacked) shape.back() *= 32 / bits;
    EXPECT_EQ(found["dtype"], tensor.dtype);
    EXPECT_EQ(found["shape"], json(shape));
    EXPECT_EQ(found.value("bits", std::uint64_t{0}), isPacked ? bits : 0);

    std::string bytes;
    for (std::uint64_t e = 0; e < found.value("experts", std::uint64_t{1}); ++e) {
      const std::uint64_t offset = found["offset"].get<std::uint64_t>();
      bytes += sample.files.at(found["file"])
                   .substr(offset + e * found.value("expertStride", std::uint64_t{0}), found["bytes"]);
    }
    EXPECT_EQ(hashData(bytes), hashData(sample.bytesOf(tensor)));
  }
  EXPECT_EQ(compared, listed.size());
  EXPECT_GT(compared, 1000U);
}

TEST(Inspect, SummariesAddUp) {
  const Sample sample;
  const json summary = sample.answer({"--json"});
  std::uint64_t total = 0, families = 0, resident = 0;
  for (const auto& [path, content] : sample.files) total += content.size();
  for (const json& bytes : summary["familyBytes"]) families += bytes.get<std::uint64_t>();
  EXPECT_EQ(summary["totalBytes"], total);
  EXPECT_EQ(families, total);
  EXPECT_EQ(summary["files"].size(), sample.files.size());

  for (const auto& [name, tensor] : sample.checkpoint->tensors()) {
    if (artifactName(name).find("model.layers.1.") != std::string::npos) resident += tensor.size;
  }
  const json layers = sample.answer({"--layers", "--json"});
  ASSERT_EQ(layers.size(), 2U);
  EXPECT_EQ(layers[1], (json{{"attention", "full"},
                             {"expertBits", {4}},
                             {"expertBytes", sample.files.at("packed_experts/layer_01.bin").size()},
                             {"experts", 4},
                             {"expertStride", summary["expertStride"]},
                             {"file", "packed_experts/layer_01.bin"},
                             {"layer", 1},
                             {"residentBytes", resident}}));

  sample.write("verified-install.json", R"({"sourceRevision":"abc\u001b[1m","toolVersion":"t"})");
  EXPECT_THAT(sample.run({}).output, HasSubstr("revision      abc\\x1b[1m\nrepository    unknown\n"));
  const std::string index = summary["sourceSnapshotHash"];
  sample.write("verified-install.json", R"({"sourceRevision":")" + index + R"("})");
  EXPECT_THAT(sample.run({}).output, HasSubstr("revision      unknown\n"));
  sample.write("verified-install.json", "{");
  EXPECT_THAT(sample.run({}), Field(&InspectOutcome::status, 0));
}

TEST(Inspect, TablesKeepToTheWidthAndGlobsFilter) {
  const Sample sample;
  EXPECT_EQ(
      sample.run({"--tensors", "--match", "layers.?.experts.up", "--match", gate}).output,
      "tensor                 dtype        shape  bits  file                         offset     bytes\n"
      "layers.0.experts.up    U32    4 x 64 x 64     4  packed_experts/layer_00.bin    2304  4 x 2048\n"
      "layers.1.experts.gate  U32    4 x 64 x 64     4  packed_experts/layer_01.bin       0  4 x 2048\n"
      "layers.1.experts.up    U32    4 x 64 x 64     4  packed_experts/layer_01.bin    2304  4 x 2048\n");
  const std::string narrow = sample.run({"--tensors"}, 110).output;
  EXPECT_THAT(narrow, HasSubstr("\n....model.layers.0.router.proj.weight  U32 "));
  std::istringstream lines(narrow);
  std::size_t longest = 0;
  for (std::string line; std::getline(lines, line);) longest = std::max(longest, line.size());
  EXPECT_EQ(longest, 110U);
  const InspectOutcome nothing = sample.run({"--tensors", "--match", "a*", "--match", "\x1b"});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.errors, "VellicorInspect: configuration invalid: no tensor matches a* or \\x1b\n");
}

TEST(Inspect, AlignsWideNames) {
  Table table({Table::Align::left, Table::Align::right}, std::nullopt);
  table.add({"name", "bytes"});
  table.add({"\u6a21\u578b.bin", "7"});
  EXPECT_EQ(table.text(), "name      bytes\n\u6a21\u578b.bin      7\n");
}

TEST(Inspect, ExportsTheCheckpointsBytes) {
  const Sample sample;
  const std::string file = sample.out / "bytes", norm = "language_model.model.norm.weight";
  const auto exported = [&](Words words) {
    words.insert(words.begin(), {"--output", file, "--force", "--tensor"});
    const InspectOutcome outcome = sample.run(words);
    EXPECT_EQ(outcome.errors, "");
    return outcome.output + readFile(file);
  };
  const auto tensors = sample.checkpoint->tensors();
  const std::string bytes =
      sample.bytesOf(tensors.at("language_model.model.layers.1.experts.switch_glu.gate_proj.weight"));
  EXPECT_THAT(exported({norm}), EndsWith(sample.bytesOf(tensors.at(norm))));
  EXPECT_THAT(exported({gate}), EndsWith(bytes));
  EXPECT_EQ(exported({gate, "--expert", "2"}),
            gate + ": U32, 64 x 64, 2.05 kB (2,048 bytes)\n" + bytes.substr(2 * 2048, 2048));
  EXPECT_THAT(sample.filesMade(), ElementsAre("bytes"));
}

TEST(Inspect, FindsExpertsThatLieElsewhereOrHoldSomethingElse) {
  const Sample sample;
  json changed = json::parse(sample.files.at(layout));
  const std::uint64_t stride = changed["expertStride"];
  json& experts = changed["layers"][1]["experts"];
  std::swap(experts[0]["offset"], experts[1]["offset"]);
  experts[0]["physicalRank"] = 1;
  experts[1]["physicalRank"] = 0;
  experts[3]["tensors"]["gate"]["shape"] = {4096};
  sample.relist(layout, changed.dump());

  const json tensors = sample.answer({"--tensors", "--json", "--match", gate});
  ASSERT_EQ(tensors.size(), 2U);
  std::map<std::size_t, json> byCount;
  for (const json& tensor : tensors) byCount[tensor["experts"]] = tensor;
  EXPECT_EQ(byCount[3]["expertIDs"], json({0, 1, 2}));
  EXPECT_EQ(byCount[3]["offsets"], json({stride, 0, 2 * stride}));
  EXPECT_EQ(byCount[1]["expertIDs"], json::array({3}));
  EXPECT_EQ(byCount[1]["shape"], json({1, 4096}));

  const std::string file = sample.out / "e";
  const Words words = {"--tensor", gate, "--output", file};
  EXPECT_EQ(sample.run(words).errors, "VellicorInspect: configuration invalid: " + gate +
                                          " is not the same for all experts: choose one with --expert\n");
  EXPECT_EQ(sample.run({"--tensor", gate, "--output", file, "--expert", "4"}).status, 1);
  EXPECT_THAT(sample.filesMade(), IsEmpty());
}

TEST(Inspect, NamesWhatIsDamagedAndWritesNothing) {
  const Sample sample;
  const std::string& root = sample.root;
  const std::size_t size = sample.files.at(weights).size();
  const std::string invalid = "configuration invalid: ";
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[&] { fs::remove(root + "/manifest.json"); },
       fmt::format("fstat({}/manifest.json) failed: errno 2", root)},
      {[&] { sample.replace("manifest.json", "streamingPresent", R"(\u001b]0;x\u0007)"); },
       invalid + R"(manifest.json invalid: manifest.flags.\x1b]0;x\x07: unknown v1 flag)"},
      {[&] { sample.editManifest([](json& m) { m["files"].erase(weights); }); },
       invalid + "manifest missing model_weights.bin"},
      {[&] { fs::resize_file(root + "/packed_experts/layer_01.bin", 65535); },
       invalid + "packed_experts/layer_01.bin size 65535 != manifest 65536"},
      {[&] { sample.relist(weights, sample.files.at(weights) + "x"); },
       fmt::format("{}model_weights.bin size {} != resident index {}", invalid, size + 1, size)},
  };
  const std::vector<Words> requests = {
      {}, {"--svg", sample.out / "f"}, {"--tensor", gate, "--output", sample.out / "f"}};
  for (const auto& [damage, expected] : rows) {
    fs::remove_all(root);
    for (const auto& [path, content] : sample.files) sample.write(path, content);
    damage();
    for (const Words& request : requests) {
      const InspectOutcome outcome = sample.run(request);
      EXPECT_EQ(outcome.errors, "VellicorInspect: " + expected + "\n");
      EXPECT_EQ(outcome.status, 1) << expected;
      EXPECT_EQ(outcome.output, "") << expected;
    }
    EXPECT_THAT(sample.filesMade(), IsEmpty()) << expected;
  }
}

TEST(Inspect, ShowsHostileNamesHarmlessly) {
  const Sample sample;
  const std::string plain = "language_model.model.embed_tokens.weight";
  std::string hostile = "\x1b]0;pwn\a<script>&\"\n\x7f\xc2\x9b.embed_tokens.";
  hostile.resize(plain.size(), 'n');
  sample.replace(weights, plain, hostile);
  sample.editManifest([](json& manifest) { manifest["modelID"] = "\x1b[2J</title><script>"; });

  const InspectOutcome table = sample.run({"--tensors"});
  EXPECT_THAT(table.output, HasSubstr(R"(\x1b]0;pwn\x07<script>&"\x0a\x7f\xc2\x9b.embed_tokens.n)"));
  const InspectOutcome list = sample.run({"--tensors", "--json"});
  EXPECT_EQ(json::parse(list.output)[0]["name"], hostile);
  ASSERT_EQ(sample.run({"--svg", sample.out / "p"}).status, 0);
  const std::string svg = readFile(sample.out / "p");
  EXPECT_THAT(svg, AllOf(HasSubstr(R"(&lt;script&gt;&amp;&quot;\x0a\x7f)"), Not(HasSubstr("<script"))));
  for (const std::string& text :
       {table.output, list.output, svg, sample.run({}).output, sample.run({"--json"}).output}) {
    EXPECT_EQ(text.find_first_of("\x1b\a\x7f\xc2"), std::string::npos);
  }
  EXPECT_EQ(sample.run({"--tensor", hostile, "--output", sample.out / "t"}).status, 0);
}

TEST(Inspect, DrawsEveryFileToScaleWithoutGaps) {
  const Sample sample(SyntheticCheckpoint::miniature(5));
  for (const char* name : {"a", "b"}) ASSERT_EQ(sample.run({"--svg", sample.out / name}).status, 0);
  const std::string svg = readFile(sample.out / "a");
  EXPECT_EQ(svg, readFile(sample.out / "b"));
  EXPECT_LT(svg.size(), 300000U);
  EXPECT_THAT(svg, AllOf(HasSubstr("<title>expert 0\nat 0: "), Not(HasSubstr("\\x0a"))));

  std::map<double, std::pair<double, double>> rows;
  static const std::regex rect(
      R"re(<rect x="([\d.]+)" y="([\d.]+)" width="([\d.]+)" height="12"[^>]*><title>)re");
  for (std::sregex_iterator at(svg.begin(), svg.end(), rect), end; at != end; ++at) {
    const double x = std::stod((*at)[1]), width = std::stod((*at)[3]);
    auto& [right, count] = rows.try_emplace(std::stod((*at)[2]), 256, 0).first->second;
    // A region may be drawn up to half a unit wider than it is, and numbers have two digits.
    EXPECT_NEAR(x, right, 0.52);
    right = x + width;
    ++count;
  }
  ASSERT_EQ(rows.size(), sample.files.size());
  const double scale =
      (rows.begin()->second.first - 256) / static_cast<double>(sample.files.at(weights).size());
  EXPECT_NEAR(rows.rbegin()->second.first - 256, scale * 65536, 0.52);
  EXPECT_GT(rows.begin()->second.second, 60);
}

TEST(Inspect, WritesAFileWholeOrNotAtAll) {
  const Sample sample;
  const std::string file = sample.out / "t";
  const Words words = {"--tensor", gate, "--output", file};
  Words forced = words;
  forced.push_back("--force");
  fs::create_directory(file);
  EXPECT_THAT(sample.run(forced).errors, HasSubstr("/t is not a regular file (directory)\n"));
  fs::remove(file);
  writeFile(file, "mine");
  EXPECT_THAT(sample.run(words).errors, HasSubstr("/t exists; --force replaces it\n"));

  Words command = {VELLICOR_INSPECT, sample.root};
  command.insert(command.end(), forced.begin(), forced.end());
  const auto limitFiles = [] {
    const rlimit limit{100, 100};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  };
  EXPECT_EQ(runProcess(command, {.beforeStart = limitFiles}).status, 1);
  EXPECT_EQ(readFile(file), "mine");
  EXPECT_THAT(sample.filesMade(), ElementsAre("t"));
  EXPECT_EQ(runProcess(command).status, 0);
  EXPECT_EQ(readFile(file).size(), 8192U);
}

TEST(Inspect, LeavesNothingWhenASignalComes) {
  const TemporaryDirectory directory;
  const std::vector<std::function<void(OutputFile&)>> steps = {[](OutputFile& file) { file.append("more"); },
                                                               [](OutputFile& file) { file.finish(); }};
  for (const auto& step : steps) {
    const Signals signals({SIGTERM});
    OutputFile output(directory / "t", OutputFile::Existing::refuse);
    output.append("first");
    std::raise(SIGTERM);
    EXPECT_THROW(step(output), CancellationError);
  }
  EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST(Inspect, EndsQuietlyWhenNobodyReads) {
  const Sample sample(SyntheticCheckpoint::miniature(5));
  const std::string run =
      fmt::format("'{}' '{}' --tensors --json; echo $? >&2", VELLICOR_INSPECT, sample.root);
  EXPECT_EQ(runProcess({"/bin/sh", "-c", "{ " + run + "; } | true"}).errors, "0\n");
  const ProcessResult usage = runProcess({VELLICOR_INSPECT, "--bogus"});
  EXPECT_EQ(usage.status, 2);
  EXPECT_THAT(usage.errors,
              StartsWith("VellicorInspect: unknown argument: --bogus\n\nUsage:\n  VellicorInspect <"));
}

}  // namespace
}  // namespace vellicor::testing
