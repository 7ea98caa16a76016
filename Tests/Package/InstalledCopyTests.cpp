#include <bit>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "Tests/Package/Surroundings.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorFormat/MorlenResidentIndexV1.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/InstallHarness.h"
#include "VellicorLab/PredictedArtifact.h"
#include "VellicorLab/SyntheticCheckpoint.h"

namespace vellicor {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;
using Words = std::vector<std::string>;

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

std::uint32_t littleEndian(std::span<const std::byte> bytes, std::size_t offset, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value |= std::to_integer<std::uint32_t>(bytes[offset + i]) << (8 * i);
  return value;
}

/// One row as the checkpoint's own tensors give it; without scales it is plain.
std::vector<float> rowOf(const SyntheticCheckpoint& checkpoint, const std::string& module, std::size_t row,
                         std::size_t bits) {
  const auto tensors = checkpoint.tensors();
  const auto rowBytes = [&](const std::string& part) {
    const auto& tensor = tensors.at(module + part);
    std::vector<std::byte> bytes(tensor.size / (tensor.shape.size() == 1 ? 1 : tensor.shape[0]));
    tensor.file->read(tensor.offset + row * bytes.size(), bytes);
    return bytes;
  };
  const auto bfloat16 = [](std::span<const std::byte> bytes, std::size_t index) {
    return std::bit_cast<float>(littleEndian(bytes, 2 * index, 2) << 16);
  };
  const std::vector<std::byte> weights = rowBytes(".weight");
  std::vector<float> values(weights.size() * 8 / bits);
  if (bits == 16) {
    for (std::size_t j = 0; j < values.size(); ++j) values[j] = bfloat16(weights, j);
    return values;
  }
  const std::vector<std::byte> scales = rowBytes(".scales"), biases = rowBytes(".biases");
  const std::size_t groupSize = values.size() / (scales.size() / 2);
  for (std::size_t j = 0; j < values.size(); ++j) {
    const std::uint32_t word = littleEndian(weights, j * bits / 32 * 4, 4);
    const std::uint32_t stored = word >> (j * bits % 32) & ((1U << bits) - 1);
    values[j] =
        bfloat16(scales, j / groupSize) * static_cast<float>(stored) + bfloat16(biases, j / groupSize);
  }
  return values;
}

TEST_F(InstalledCopy, ReadTensorFindsThePackageAndReadsWhatTheCheckpointHolds) {
  const Copy copy;
  const std::string build = copy.directory / "read_tensor";
  Words configure = {surroundings::cmake,
                     "-S",
                     copy.prefix + "/" + surroundings::documentDirectory + "/examples/read_tensor",
                     "-B",
                     build,
                     "-G",
                     surroundings::generator};
  append(configure, split(surroundings::found, '\n'));
  append(configure, {fmt::format("-DVellicorFormat_DIR={}/{}/cmake/VellicorFormat", copy.prefix,
                                 surroundings::libraryDirectory),
                     fmt::format("-DCMAKE_CXX_COMPILER={}", surroundings::compiler),
                     fmt::format("-DCMAKE_CXX_FLAGS=-O0 -Wall -Wextra -Wpedantic -Wconversion -Werror {}",
                                 surroundings::flags)});
  outputOf(configure);
  outputOf({surroundings::cmake, "--build", build});
  const std::string reader = build + "/read_tensor";

  const auto checkpoint = SyntheticCheckpoint::miniature(7);
  const Files artifact = PredictedArtifact(*checkpoint).contents();
  writeArtifact(copy.directory / "whole", artifact);
  const std::string model = "language_model.model.";
  const std::vector<std::tuple<std::string, std::size_t, std::size_t>> rows = {
      {model + "embed_tokens", 511, 4},
      {model + "layers.29.self_attn.o_proj", 5, 4},
      {model + "layers.3.router.proj", 2, 8},
      {model + "layers.1.self_attn.k_norm", 0, 16},
  };
  for (const auto& [module, row, bits] : rows) {
    SCOPED_TRACE(module);
    std::vector<float> read;
    for (const std::string& line :
         split(outputOf({reader, copy.directory / "whole", module + ".weight", std::to_string(row)}), '\n'))
      read.push_back(std::strtof(line.c_str(), nullptr));
    EXPECT_THAT(read, ElementsAreArray(rowOf(*checkpoint, module, row, bits)));
  }

  // Of the first entry, which is the embedding: the last of its two dimensions, and the size of its scales.
  constexpr std::size_t columnsAt = 24 + 28, scalesSizeAt = 24 + 48;
  const std::string embedding = model + "embed_tokens.weight";
  const std::vector<std::tuple<std::string, std::function<void(std::string&)>, Words, std::string>> refusals =
      {
          {"no such tensor", nullptr, {"nothing", "0"}, "no resident tensor has that name"},
          {"no such row", nullptr, {embedding, "512"}, "the tensor has 512 rows"},
          {"a shorter file",
           [](std::string& weights) { weights.pop_back(); },
           {embedding, "0"},
           "model_weights.bin has not the size that the manifest says"},
          {"an index of a shorter file",
           [](std::string& weights) { weights[8] = static_cast<char>(weights[8] ^ 1); },
           {model + "layers.0.layer_scalar", "0"},
           "model_weights.bin has another size than its index"},
          {"very long rows",
           [](std::string& weights) { weights.replace(columnsAt, 4, "\xC0\xFF\xFF\xFF"); },
           {embedding, "0"},
           "the tensor is not of 4 or 8 bits"},
          {"half of the scales",
           [](std::string& weights) {
             weights[scalesSizeAt + 1] = static_cast<char>(weights[scalesSizeAt + 1] / 2);
           },
           {embedding, "511"},
           "scales or biases do not fit the tensor's shape"},
      };
  for (const auto& [name, damage, arguments, text] : refusals) {
    SCOPED_TRACE(name);
    Files files = artifact;
    if (damage) damage(files.at("model_weights.bin"));
    TemporaryDirectory damaged;
    writeArtifact(damaged.path(), files);
    const ProcessResult refused = runProcess({reader, damaged.path(), arguments[0], arguments[1]});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.errors, "read_tensor: " + text + "\n");
  }
}

/// The lines that the library's decoders give for every tensor of an artifact.
Words tensorLines(const Files& artifact) {
  Words lines;
  const auto add = [&](const std::string& name, const std::string& dtype,
                       const std::vector<std::uint32_t>& shape, const std::string& bits,
                       const std::string& file, std::uint64_t offset, std::uint64_t size) {
    lines.push_back(fmt::format("{}\t{}\t{}\t{}\t{}\t{}\t{}", name, dtype, fmt::join(shape, "x"), bits, file,
                                offset, size));
  };
  const auto weights = std::as_bytes(std::span(artifact.at("model_weights.bin")));
  for (const auto& entry :
       MorlenResidentIndexCodec::decodeRegion(weights, MorlenResidentIndexCodec::decodeHeader(weights))) {
    std::vector<std::uint32_t> shape;
    std::uint64_t count = 1;
    for (const std::uint32_t dimension : entry.shape) {
      if (dimension == 0) continue;
      shape.push_back(dimension);
      count *= dimension;
    }
    const bool isPacked = entry.dtype == 0;
    add(entry.name, isPacked ? "U32" : "BF16", shape,
        isPacked ? std::to_string(entry.sizeBytes * 8 / count) : "-", "model_weights.bin", entry.fileOffset,
        entry.sizeBytes);
    if (entry.scaleSize == 0) continue;
    shape.back() /= 64;
    add(entry.name + ".scales", "BF16", shape, "-", "model_weights.bin", entry.scaleOffset, entry.scaleSize);
    add(entry.name + ".biases", "BF16", shape, "-", "model_weights.bin", entry.biasOffset, entry.biasSize);
  }
  for (const MorlenLayerV1& layer :
       MorlenPackedExpertsLayoutCodec::decode(artifact.at("packed_experts/layout.json")).layers) {
    for (const MorlenExpertV1& expert : layer.experts) {
      for (const auto& [key, tensor] : expert.tensors)
        add(fmt::format("layers.{}.experts.{}.{}", layer.layer, expert.expert.value(), key), tensor.dtype,
            tensor.shape, tensor.bits ? std::to_string(*tensor.bits) : "-",
            MorlenFormatV1::layerPath(layer.file), expert.offset + tensor.offset, tensor.size);
    }
  }
  return lines;
}

TEST(ListTensors, WrittenFromTheFormatsPageListsTheSameTensors) {
  const std::string lister = std::string(surroundings::sourceDirectory) + "/examples/list_tensors.py";
  Files artifact = PredictedArtifact(*SyntheticCheckpoint::miniature(7)).contents();
  TemporaryDirectory directory;
  writeArtifact(directory.path(), artifact);
  const Words lines = split(outputOf({surroundings::python, "-B", lister, directory.path()}), '\n');
  EXPECT_EQ(lines.size(), 2149U);
  EXPECT_THAT(lines, ElementsAreArray(tensorLines(artifact)));

  const std::string layerFile = "packed_experts/layer_00.bin";
  writeFile(directory / layerFile, artifact.at(layerFile).substr(1));
  const ProcessResult refused = runProcess({surroundings::python, "-B", lister, directory.path()});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "");
  EXPECT_EQ(refused.errors, "list_tensors.py: " + layerFile + ": not the size that the manifest says\n");
}

}  // namespace
}  // namespace vellicor
