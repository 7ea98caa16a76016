#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/Fuzz/FailingAllocation.h"
#include "Tests/Fuzz/Targets.h"
#include "VellicorFormat/MorlenResidentIndexV1.h"
#include "VellicorLab/Emulator.h"
#include "VellicorLab/TemporaryDirectory.h"

namespace vellicor::fuzz {

void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }

namespace {

constexpr bool isSanitized = VELLICOR_IS_SANITIZED;
constexpr rlim_t additionalBytes = 268435456;

rlim_t cpuSeconds() { return isProcessorEmulated() ? 60 : isSanitized ? 10 : 1; }

void limit(decltype(RLIMIT_CPU) resource, rlim_t value) {
  const rlimit both{value, value};
  if (::setrlimit(resource, &both) != 0) std::abort();
}

/// Only where the system says what this process has mapped already.
void limitMemory() {
  rlim_t pages = 0;
  if (isSanitized || !(std::ifstream("/proc/self/statm") >> pages)) return;
  limit(RLIMIT_AS, pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + additionalBytes);
}

/// Expects the target to accept the input or to refuse it properly, in a process of its own.
void expectWithinLimits(const Target& target, const std::string& name, const std::string& input) {
  static const TemporaryDirectory directory;
  const pid_t child = ::fork();
  if (child == 0) {
    [&]() noexcept {
      limit(RLIMIT_CORE, 0);
      limit(RLIMIT_CPU, cpuSeconds());
      limitMemory();
      // Decoders report what they catch as their own error; running out of memory must not pass as one.
      std::set_new_handler([] { std::_Exit(3); });
      ::setenv("TMPDIR", directory.path().c_str(), 1);
      target.run(std::as_bytes(std::span(input)));
    }();
    std::_Exit(0);
  }
  ASSERT_GT(child, 0) << "no process could be started";
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << name << ", " << input.size() << " bytes";
}

/// An opening, elements up to the size, an ending. Each "#" of an element becomes the element's number.
struct Pattern {
  std::string name;
  std::string opening;
  std::string element;
  std::string ending;

  std::string text(std::size_t size) const {
    std::string text = opening;
    text.reserve(size);
    for (std::size_t count = 0;; ++count) {
      const std::size_t before = text.size();
      for (const char c : element) c == '#' ? text += std::to_string(count) : text += c;
      if (text.size() + ending.size() <= size) continue;
      return text.substr(0, before) + ending;
    }
  }
};

std::vector<Pattern> patternsForAll() {
  const std::string tower = std::string(500, '[') + std::string(500, ']') + ",";
  std::string objects = "0" + std::string(500, '}') + ",";
  for (int level = 0; level < 500; ++level) objects.insert(0, R"({"":)");
  return {
      {"open brackets", "", "[", ""},
      {"open braces", "", R"({"a":)", ""},
      {"towers", "[", tower, "0]"},
      {"towers of objects", "[", objects, "0]"},
      {"spaced towers of objects", "[", objects + std::string(3200, ' '), "0]"},
      {"keys", "{", R"("#":0,)", R"("":0})"},
      {"one key again and again", "{", R"("k":[0],)", R"("k":0})"},
      {"keys of objects", "{", R"("#":{},)", R"("":0})"},
      {"keys of strings", "{", R"("#":"",)", R"("":0})"},
      {"zeros", "[", "0,", "0]"},
      // As many as the limit on the number of values lets pass.
      {"spaced zeros", "[", "0,          ", "0]"},
      {"spaced strings", "[", R"("",         )", "0]"},
      {"spaced objects", "[", "{},                    ", "0]"},
      {"digits", "[1", "0", "]"},
      {"exponent", "[1e", "9", "]"},
      {"nested exponents", "[", "1e999999,", "0]"},
      {"escapes", "\"", R"(\u0041)", "\""},
      {"surrogates", "\"", R"(\ud83d\ude00)", "\""},
      {"ill-formed string", "\"", "a", "\xFF"},
      {"white space", "", " ", ""},
      {"NUL", "", std::string(1, '\0'), ""},
      {"no UTF-8", "", "\xFF", ""},
      {"components", "", "a/", "a"},
      {"marks", "e", "\xCC\x81\xCC\xA3", ""},
      {"dates", "Sun, ", "06 Nov ", "GMT"},
      {"ranges", "bytes ", "0-", "/1000"},
      {"leading zeros", "bytes ", "0", "10-99/1000"},
      {"percents", "https://h/", "%25", ""},
      {"dot segments", "https://h/a/b?c#d\n", "x/../", "y"},
  };
}

/// Makes the valid file of a target's corpus large: elements after a place in it.
struct Growth {
  std::string target;
  std::string place;
  std::string element;
};

std::vector<Growth> growths() {
  const std::string digest(64, 'a');
  const std::string room(24, ' ');
  const std::string file = R"(":{"size":1,"sha256":")" + digest + "\"},";
  return {
      {"manifest", R"("files":{)", "\"f#" + file},
      {"manifest", R"("files":{)", "\"a/b/#/d/e\xCC\x81" + file},
      {"manifest", R"("fullAttentionLayerMask":[)", "0,"},
      {"manifest", R"("flags":{)", R"("streamingPresent":true,)"},
      {"layout", R"("tensors":{)", R"("#":{"dtype":"U32","offset":#,"shape":[1],"size":1},)"},
      {"layout", R"("tensors":{)", R"("#":0,)"},
      {"layout", R"("tensors":{)", R"("gate":{},)"},
      {"layout", R"("shape":[)", R"("",)"},
      {"layout", R"("shape":[)", "1,          "},
      {"layout", R"("experts":[)", R"({"offset":0,"size":32768,"tensors":{}},)"},
      {"layout", R"("layers":[)", R"({"experts":[],"file":"#","layer":#},)"},
      {"layout", R"("experts":[)", "0,"},
      {"layout", R"("layers":[)", "{},"},
      {"checkpoint", R"("completedRanges":[)", "0,    "},
      {"safetensors", R"("shape":[)", "1,          "},
      {"safetensors", "{", R"("#":{"dtype":"F32","shape":[],"data_offsets":[0,4]},)" + room},
      {"index", R"("weight_map":{)", R"("#":"shard-#",)"},
      {"config", R"("quantization":{)", R"("#":{},)"},
      {"config", R"("layer_types":[)", R"("",)"},
      {"checkpoint", R"("completedRanges":[)",
       R"({"destinationBytes":1,"sourceBytes":1,"id":"#","destinationDigest":")" + digest + "\"},"},
  };
}

/// An index region of the largest size, filled with entries of a name that begins `step` bytes after the
/// name before it.
std::string region(std::uint64_t entryCount, std::size_t nameBytes, std::size_t step) {
  using Codec = MorlenResidentIndexCodec;
  constexpr std::uint64_t size = MorlenFormatV1::residentIndexMaxBytes;
  std::string bytes(size, '\0');
  auto table = std::as_writable_bytes(std::span(bytes));
  Codec::writeHeader(table, {size, entryCount, entryCount});
  table = table.subspan(MorlenFormatV1::residentHeaderBytes);
  std::size_t at = MorlenFormatV1::residentHeaderBytes + entryCount * MorlenFormatV1::residentEntryBytes;
  for (std::uint64_t i = 0; i < entryCount; ++i, at += step) {
    const std::string number = std::to_string(i);
    bytes.replace(at, number.size(), number);
    const std::string name(nameBytes, 'n');
    Codec::writeEntry(table, {name, 0, size + entryCount - 1 - i, 1, {1}}, static_cast<std::uint32_t>(at));
    table = table.subspan(MorlenFormatV1::residentEntryBytes);
  }
  return bytes;
}

class HostileInput : public ::testing::TestWithParam<Target> {};

TEST_P(HostileInput, EndsWithinLimits) {
  const Target& target = GetParam();
  // The sanitizers look for faults; time and memory are judged without them.
  const std::size_t size = target.maximumBytes / (isSanitized ? 32 : 1);
  const std::string prefix = target.name == "safetensors" ? std::string(8, '\x7F') : "";
  for (const Pattern& pattern : patternsForAll())
    expectWithinLimits(target, pattern.name, prefix + pattern.text(size - prefix.size()));
  for (const auto& [name, place, element] : growths()) {
    if (name != target.name) continue;
    const std::string valid = readFile(VELLICOR_FUZZ_CORPUS "/" + name + "/valid");
    const std::size_t end = valid.find(place) + place.size();
    ASSERT_GE(end, place.size()) << place;
    const Pattern pattern{"", valid.substr(0, end), element, valid.substr(end)};
    expectWithinLimits(target, place + element, pattern.text(size));
  }
  if (target.name != "resident") return;
  expectWithinLimits(target, "all entries", region(200000, 7, 7));
  expectWithinLimits(target, "names that share bytes", region(100000, 65535, 16));
}

/// Runs the target until none of its allocations fails any more.
void failEachAllocation(const Target& target, const std::string& input) {
  target.run(std::as_bytes(std::span(input)));
  for (std::size_t failing = 1;; ++failing) {
    bool isReported = false;
    allocationsUntilFailure = failing;
    try {
      target.run(std::as_bytes(std::span(input)));
    } catch (const std::bad_alloc&) {
      isReported = true;
    }
    const bool hasFailed = std::exchange(allocationsUntilFailure, 0) == 0;
    EXPECT_EQ(isReported, hasFailed) << "allocation " << failing;
    if (!hasFailed) return;
  }
}

TEST_P(HostileInput, IsNotBlamedForWantOfMemory) {
  const std::string corpus = fmt::format("{}/{}", VELLICOR_FUZZ_CORPUS, GetParam().name);
  std::size_t files = 0;
  for (const auto& file : std::filesystem::directory_iterator(corpus)) {
    SCOPED_TRACE(file.path().string());
    failEachAllocation(GetParam(), readFile(file.path().string()));
    ++files;
  }
  EXPECT_GT(files, 0U);
}

INSTANTIATE_TEST_SUITE_P(Decoders, HostileInput, ::testing::ValuesIn(targets),
                         [](const auto& target) { return std::string(target.param.name); });

}  // namespace
}  // namespace vellicor::fuzz
