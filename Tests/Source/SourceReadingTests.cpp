#include <gmock/gmock.h>

#include "Tests/Source/TinyModel.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace vellicor {
namespace {

using namespace vellicor::testing;
using ::testing::ElementsAre;
using ::testing::StartsWith;

TEST(Safetensors, PlacesTensorsBehindTheHeader) {
  const std::string header =
      R"({"__metadata__":"any value","a":{"dtype":"BF16","shape":[4,8],"data_offsets":[4,68]},)"
      R"("s":{"dtype":"F32","shape":[],"data_offsets":[0,4]}})";
  const std::uint64_t start = 8 + header.size();
  EXPECT_THAT(Safetensors::parseHeaderBytes("shard", start + 68, header).tensors,
              ElementsAre(SourceTensor{"a", "shard", SourceTensor::Dtype::bf16, {4, 8}, start + 4, 64},
                          SourceTensor{"s", "shard", SourceTensor::Dtype::fp32, {}, start, 4}));
}

TEST(Safetensors, RefusesMalformedHeaders) {
  const std::string valid = R"({"t":{"dtype":"U32","shape":[1],"data_offsets":[0,4]}})";
  const std::string entry = "safetensors header at shard invalid: entry for t ";
  const std::string tooLarge = "safetensors header at shard size ";
  const std::string shape = "shape mismatch for t: shape product ";
  const std::string padding(Safetensors::maximumHeaderBytes - 2, ' ');
  const struct {
    std::string header, text;
    std::uint64_t fileSize = 1000;
  } rows[] = {
      {valid, "no error", 66},
      {valid, "safetensors shard: tensor t ends at 66, file size 65", 65},
      {valid, tooLarge + "54 exceeds bound", 61},
      {valid, tooLarge + "54 exceeds bound", 7},
      {"{}" + padding, "no error", 1 << 25},
      {"{} " + padding, tooLarge + "16777217 exceeds bound", 1 << 25},
      {"[]", "safetensors header at shard invalid: header is not a JSON object"},
      {R"({"t":[]})", entry + "is not a dict"},
      {replaced(valid, R"("U32")", "1"), entry + "has no dtype"},
      {replaced(valid, "U32", "u32"), "safetensors at shard has unsupported dtype u32"},
      {replaced(valid, "shape", "form"), entry + "has no shape"},
      {replaced(valid, "[1]", "[1.5]"), entry + "has non-integer shape entry"},
      {replaced(valid, "[1]", "[-1]"), entry + "has non-integer shape entry"},
      {replaced(valid, "[0,4]", "[0,4,8]"), entry + "has bad data_offsets"},
      {replaced(valid, "[0,4]", "[4,0]"), entry + "has bad data_offsets"},
      {replaced(valid, "[0,4]", "[0,18446744073709551615]"), entry + "has bad data_offsets"},
      {replaced(valid, "[1]", "[4,8]"), shape + "32*4 != size 4"},
      {replaced(valid, "[1]", "[4294967296,4294967297]"), shape + "18446744073709551615*4 != size 4"},
      {replaced(valid, "[1]", "[4611686018427387905]"), shape + "4611686018427387905*4 != size 4"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(errorText([&] { Safetensors::parseHeaderBytes("shard", row.fileSize, row.header); }), row.text);
}

TEST(IndexLoader, ReadsShardsAndQuantisationAndNamesTheFileThatIsWrong) {
  const TemporaryDirectory directory;
  const std::string indexText = R"({"weight_map":{"b":"s2","a":"s1","c":"s1"},"metadata":7})";
  const auto load = [&](const std::string& index, const std::string& config) {
    writeFile(directory / "model.safetensors.index.json", index);
    writeFile(directory / "config.json", config);
    return IndexLoader::load(directory.path() + "/");
  };
  const auto meta = load(indexText, R"({"quantization":{"bits":5,"group_size":"64","mode":"other",
    "a.proj":{"bits":8},"b.proj":{"group_size":64},"c.proj":false}})");
  EXPECT_EQ(meta.indexSha256Hex, "0493a42eab2bf4af1e57af357f45d65a51b193d64fc33e0b9f0d0964d0a6089f");
  EXPECT_THAT(meta.shardFilenames, ElementsAre("s1", "s2"));
  EXPECT_EQ(std::tie(meta.baseBits, meta.baseGroupSize, meta.baseMode), std::tuple(5, 64, "other"));
  EXPECT_THAT(meta.bitsOverrides,
              ElementsAre(std::pair("a.proj", QuantSpec{8}), std::pair("b.proj", QuantSpec{5})));

  const std::string badIndex = "index.json " + meta.indexPath + " invalid: ";
  const std::string badConfig = "config.json " + meta.configPath + " invalid: ";
  const struct {
    std::string index, config, text;
  } rows[] = {
      {"{", "{}", badIndex + "[json.exception.parse_error"},
      {"[]", "{}", badIndex + "not a JSON object"},
      {R"({"weight_map":{"a":1}})", "{}", badIndex + "no weight_map"},
      {indexText, "nul", badConfig + "[json.exception.parse_error"},
      {indexText, "1", badConfig + "not a JSON object"},
      {indexText, R"({"quantization":4})", badConfig + "no quantization slot"},
      {indexText, R"({"quantization":{"m":{"group_size":32}}})",
       badConfig + "quantization override m group_size 32 != base 64"},
  };
  for (const auto& row : rows)
    EXPECT_THAT(errorText([&] { load(row.index, row.config); }), StartsWith(row.text));
}

std::string archText(const std::string& optionalSettings) {
  return R"({"hidden_size":1,"text_config":{"hidden_size":2816,"num_hidden_layers":3,"intermediate_size":2112,
    "moe_intermediate_size":704,"num_experts":128,"top_k_experts":8,"num_attention_heads":16,"num_key_value_heads":7,
    "num_global_key_value_heads":2,"head_dim":256,"global_head_dim":512,"vocab_size":262144,"sliding_window":1024.9,
    "final_logit_softcapping":30,)" +
         optionalSettings + "}}";
}

TEST(ArchInfo, ReadsConfiguration) {
  const TemporaryDirectory directory;
  const std::string path = directory / "config.json";
  writeFile(path, archText(R"("tie_word_embeddings":true,"attention_k_eq_v":1,"hidden_activation":"relu",
    "layer_types":["sliding_attention","other","full_attention"],"rope_parameters":{
    "full_attention":{"rope_theta":5,"partial_rotary_factor":0.5},"sliding_attention":{"rope_theta":7.5}})"));
  ArchInfo expected{2816, 2112, 704, 16, 7,   2, 256,  512,  262144,    1024,  30,
                    7.5,  5,    0.5, 3,  128, 8, true, true, {0, 0, 1}, "relu"};
  EXPECT_EQ(ArchInfo::load(path), expected);

  const std::string plain =
      archText(R"("tie_word_embeddings":"true","attention_k_eq_v":2,"hidden_activation":4,
    "layer_types":["full_attention",4],"rope_parameters":{"full_attention":{"rope_theta":"5"}})");
  expected = {2816, 2112,   704,  16,    7,     2,       256,
              512,  262144, 1024, 30,    10000, 1000000, 0.25,
              3,    128,    8,    false, false, {},      "gelu_pytorch_tanh"};
  writeFile(path, plain);
  EXPECT_EQ(ArchInfo::load(path), expected);

  const std::string invalid = "config.json " + path + " invalid: ";
  const struct {
    std::string config, text;
  } rows[] = {
      {R"({"hidden_size":1,"text_config":[]})", invalid + "no text_config"},
      {replaced(replaced(plain, "\"head_dim", "\"x"), "vocab_size", "y"), invalid + "missing head_dim"},
      {replaced(plain, "2112", R"("2112")"), invalid + "missing intermediate_size"},
      {replaced(plain, "262144", "9223372036854775808"), invalid + "missing vocab_size"},
      {replaced(plain, "262144", "1e19"), invalid + "missing vocab_size"},
      {replaced(plain, "softcapping", "z"), invalid + "missing final_logit_softcapping"},
  };
  for (const auto& row : rows) {
    writeFile(path, row.config);
    EXPECT_EQ(errorText([&] { ArchInfo::load(path); }), row.text);
  }
}

}  // namespace
}  // namespace vellicor
