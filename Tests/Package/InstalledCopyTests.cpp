#include <regex>
#include <sstream>

#include <unistd.h>

#include "Tests/Package/Surroundings.h"
#include "Tests/Support/Expect.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/InstallHarness.h"
#include "VellicorLab/PredictedArtifact.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor::testing {
namespace {

Words split(const std::string& text, char separator = ' ') {
  Words words;
  std::istringstream in(text);
  for (std::string word; std::getline(in, word, separator);) {
    if (!word.empty()) words.push_back(word);
  }
  return words;
}

void append(Words& words, const Words& more) { words.insert(words.end(), more.begin(), more.end()); }

/// The standard output of a command that must succeed.
std::string outputOf(const Words& command, const ProcessSurroundings& around = {}) {
  const ProcessResult result = runProcess(command, around);
  EXPECT_EQ(result.status, 0) << fmt::format("{}", fmt::join(command, " ")) << '\n'
                              << result.output << result.errors;
  return result.output;
}

/// The build under test, installed and then moved: nothing in it may know where it was put first.
struct Copy {
  /// What is installed: one component, or everything.
  explicit Copy(const Words& which = {"--component", "development"}) {
    Words command = {surroundings::cmake, "--install", surroundings::buildDirectory, "--prefix",
                     directory / "at"};
    append(command, which);
    outputOf(command);
    fs::rename(directory / "at", prefix);
  }

  Words compiler() const {
    Words words = {surroundings::compiler, "-std=c++20", "-O0"};
    append(words, split(surroundings::flags));
    return words;
  }

  TemporaryDirectory directory;
  std::string prefix = directory / "moved";
};

class InstalledCopy : public Test {
 protected:
  void SetUp() override {
    if (::access(surroundings::buildDirectory, W_OK) != 0)
      GTEST_SKIP() << "this user may not write to the build directory, where CMake notes what it installs";
  }
};

TEST_F(InstalledCopy, HoldsWhatOthersLookForAndNothingElse) {
  const Copy copy(Words{});
  const std::string lib = surroundings::libraryDirectory, doc = surroundings::documentDirectory;
  std::vector<std::string> expected = {
      "include/VellicorFormat/CanonicalJson.h",
      "include/VellicorFormat/MorlenFormatV1.h",
      "include/VellicorFormat/MorlenManifestV1.h",
      "include/VellicorFormat/MorlenPackedExpertsLayoutV1.h",
      "include/VellicorFormat/MorlenResidentIndexV1.h",
      lib + "/cmake/VellicorFormat/VellicorFormatConfig.cmake",
      lib + "/cmake/VellicorFormat/VellicorFormatConfigVersion.cmake",
      lib + "/cmake/VellicorFormat/VellicorFormatTargets.cmake",
      lib + "/libVellicorFormat.a",
      lib + "/pkgconfig/VellicorFormat.pc",
      doc + "/examples/list_tensors.py",
      doc + "/examples/read_tensor/CMakeLists.txt",
      doc + "/examples/read_tensor/main.cpp",
      doc + "/format.md",
      "share/man/man5/vellicor-artifact.5",
  };
  for (const std::string& program : split(surroundings::programs)) {
    append(expected, {"bin/" + program, "share/man/man1/" + program + ".1",
                      "share/bash-completion/completions/" + program + ".bash",
                      std::string(surroundings::zshDirectory) + "/_" + program,
                      "share/fish/vendor_completions.d/" + program + ".fish"});
  }
  Words found;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(copy.prefix)) {
    const std::string path = fs::relative(entry.path(), copy.prefix).string();
    // One file's name carries the build type.
    if (entry.is_regular_file() && path.find("VellicorFormatTargets-") == std::string::npos)
      found.push_back(path);
  }
  EXPECT_THAT(found, UnorderedElementsAreArray(expected));
}

TEST_F(InstalledCopy, HeadersStandAloneAndPkgConfigFindsTheLibrary) {
  const Copy copy;
  const std::regex includeLine(R"(#include (.*))"), allowed(R"(<[a-z_]+>|"VellicorFormat/\w+\.h")");
  Words command = copy.compiler();
  append(command,
         {"-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-I", copy.prefix + "/include"});
  std::size_t includes = 0;
  for (const auto& [header, text] : readTree(copy.prefix + "/include")) {
    for (const std::string& line : split(text, '\n')) {
      std::smatch include;
      if (!std::regex_match(line, include, includeLine)) continue;
      ++includes;
      EXPECT_TRUE(std::regex_match(include[1].str(), allowed)) << header << " includes " << include[1];
    }
    const std::string source = copy.directory / (fs::path(header).stem().string() + ".cpp");
    writeFile(source, fmt::format("#include \"{}\"\n", header));
    command.push_back(source);
  }
  EXPECT_GT(includes, 20U);
  outputOf(command);

  const std::string source = copy.directory / "key.cpp", program = copy.directory / "key";
  writeFile(source,
            "#include \"VellicorFormat/MorlenFormatV1.h\"\n"
            "int main() { return vellicor::MorlenPathValidator::appleFilesystemKey(\"A/B\") == \"a/b\" ? 0 : "
            "1; }\n");
  const char* path = std::getenv("PKG_CONFIG_PATH");
  const std::string packages =
      fmt::format("{}/{}/pkgconfig:{}/lib/pkgconfig:{}", copy.prefix, surroundings::libraryDirectory,
                  surroundings::icuRoot, path == nullptr ? "" : path);
  std::string flags = outputOf({surroundings::pkgConfig, "--cflags", "--libs", "VellicorFormat >= 1.0"},
                               {.environment = {{"PKG_CONFIG_PATH", packages}}});
  flags.erase(flags.find_last_not_of(" \n") + 1);
  command = copy.compiler();
  append(command, {source, "-o", program});
  append(command, split(flags));
  outputOf(command);
  outputOf({program});
}

using Files = std::map<std::string, std::string>;

void writeArtifact(const std::string& directory, const Files& files) {
  for (const auto& [path, content] : files) writeFile(directory + "/" + path, content);
}

TEST_F(InstalledCopy, ReadTensorFindsThePackageAndReadsWhatTheCheckpointHolds) {
  const Copy copy;
  const std::string build = copy.directory / "read_tensor", lib = surroundings::libraryDirectory;
  const std::string example = copy.prefix + "/" + surroundings::documentDirectory + "/examples/read_tensor";
  Words configure = {surroundings::cmake, "-S", example, "-B", build, "-G", surroundings::generator};
  append(configure, split(surroundings::found, '\n'));
  append(configure, {fmt::format("-DVellicorFormat_DIR={}/{}/cmake/VellicorFormat", copy.prefix, lib),
                     fmt::format("-DCMAKE_CXX_COMPILER={}", surroundings::compiler),
                     fmt::format("-DCMAKE_CXX_FLAGS=-O0 -Wall -Wextra -Wpedantic -Wconversion -Werror {}",
                                 surroundings::flags)});
  outputOf(configure);
  outputOf({surroundings::cmake, "--build", build});
  const std::string reader = build + "/read_tensor", whole = copy.directory / "whole";
  const Files artifact = PredictedArtifact(*SyntheticCheckpoint::miniature(7)).contents();
  writeArtifact(whole, artifact);
  const std::string model = "language_model.model.", embedding = model + "embed_tokens.weight";
  // Of 4, 4, 8 and 16 bits; the digest is of what the checkpoint's own tensors give.
  std::string read;
  for (const auto& [name, row] : {std::pair("embed_tokens", "511"),
                                  {"layers.29.self_attn.o_proj", "5"},
                                  {"layers.3.router.proj", "2"},
                                  {"layers.1.self_attn.k_norm", "0"}})
    read += outputOf({reader, whole, model + name + ".weight", row});
  EXPECT_EQ(hashData(read), "READ");

  // Of the first entry, which is the embedding: the last of its two dimensions, and the size of its scales.
  constexpr std::size_t columnsAt = 24 + 28, scalesSizeAt = 24 + 48;
  const auto halve = [](char& byte) { byte = static_cast<char>(byte / 2); };
  const std::vector<std::tuple<std::function<void(std::string&)>, Words, std::string>> refusals = {
      {[](auto&) {}, {"nothing", "0"}, "no resident tensor has that name"},
      {[](auto&) {}, {embedding, "512"}, "the tensor has 512 rows"},
      {[](auto& w) { w.pop_back(); },
       {embedding, "0"},
       "model_weights.bin has not the size that the manifest says"},
      {[](auto& w) { w[8] = static_cast<char>(w[8] ^ 1); },
       {model + "layers.0.layer_scalar", "0"},
       "model_weights.bin has another size than its index"},
      {[](auto& w) { w.replace(columnsAt, 4, "\xC0\xFF\xFF\xFF"); },
       {embedding, "0"},
       "the tensor is not of 4 or 8 bits"},
      {[&](auto& w) { halve(w[scalesSizeAt + 1]); },
       {embedding, "511"},
       "scales or biases do not fit the tensor's shape"},
  };
  for (const auto& [damage, arguments, text] : refusals) {
    std::string weights = artifact.at("model_weights.bin");
    damage(weights);
    writeFile(whole + "/model_weights.bin", weights);
    const ProcessResult refused = runProcess({reader, whole, arguments[0], arguments[1]});
    EXPECT_EQ(refused.errors, "read_tensor: " + text + "\n");
    EXPECT_EQ(refused.status, 1) << text;
    EXPECT_EQ(refused.output, "") << text;
  }
}

TEST(ListTensors, WrittenFromTheFormatsPageListsTheSameTensors) {
  const std::string lister = std::string(surroundings::sourceDirectory) + "/examples/list_tensors.py";
  const Files artifact = PredictedArtifact(*SyntheticCheckpoint::miniature(7)).contents();
  TemporaryDirectory directory;
  writeArtifact(directory.path(), artifact);
  // The digest is of what the library's decoders give: 2149 lines.
  EXPECT_EQ(hashData(outputOf({surroundings::python, "-B", lister, directory.path()})), "LIST");

  const std::string layerFile = "packed_experts/layer_00.bin";
  writeFile(directory / layerFile, artifact.at(layerFile).substr(1));
  const ProcessResult refused = runProcess({surroundings::python, "-B", lister, directory.path()});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "");
  EXPECT_EQ(refused.errors, "list_tensors.py: " + layerFile + ": not the size that the manifest says\n");
}

}  // namespace
}  // namespace vellicor::testing
