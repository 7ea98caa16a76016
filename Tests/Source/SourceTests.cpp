#include "Tests/Support/SampleModel.h"

namespace vellicor::testing {
namespace {

TEST(Safetensors, RefusesMalformedHeaders) {
  const std::string valid = R"({"t":{"dtype":"U32","shape":[1],"data_offsets":[0,4]}})";
  const std::string scalar = R"({"__metadata__":1,"s":{"dtype":"F32","shape":[],"data_offsets":[4,8]}})";
  const std::string padding(Safetensors::maximumHeaderBytes - 2, ' ');
  const std::string invalid = "safetensors header at shard invalid: ";
  const std::string shape = "shape mismatch for t: shape product ";
  const auto error = [](const std::string& header, std::uint64_t fileSize = 1 << 25) {
    return errorText([&] { Safetensors::parseHeaderBytes("shard", fileSize, header); });
  };
  const auto bent = [&](const char* from, const char* to) { return error(replaced(valid, from, to)); };
  EXPECT_THAT(Safetensors::parseHeaderBytes("shard", 1000, scalar).tensors,
              ElementsAre(SourceTensor{"s", "shard", SourceTensor::Dtype::fp32, {}, 12 + scalar.size(), 4}));
  EXPECT_EQ(error(valid, 66), "no error");
  EXPECT_EQ(error(valid, 65), "safetensors shard: tensor t ends at 66, file size 65");
  EXPECT_EQ(error(valid, 61), "safetensors header at shard size 54 exceeds bound");
  EXPECT_EQ(error(valid, 7), "safetensors header at shard size 54 exceeds bound");
  EXPECT_EQ(error("{}" + padding), "no error");
  EXPECT_EQ(error("{} " + padding), "safetensors header at shard size 16777217 exceeds bound");
  EXPECT_EQ(error("[]"), invalid + "header is not a JSON object");
  EXPECT_EQ(error(R"({"t":[]})"), invalid + "entry for t is not a dict");
  EXPECT_EQ(bent(R"("U32")", "1"), invalid + "entry for t has no dtype");
  EXPECT_EQ(bent("U32", "u32"), "safetensors at shard has unsupported dtype u32");
  EXPECT_EQ(bent("shape", "form"), invalid + "entry for t has no shape");
  EXPECT_EQ(bent("[1]", "[1.5]"), invalid + "entry for t has non-integer shape entry");
  EXPECT_EQ(bent("[0,4]", "[0,4,8]"), invalid + "entry for t has bad data_offsets");
  EXPECT_EQ(bent("[0,4]", "[4,0]"), invalid + "entry for t has bad data_offsets");
  EXPECT_EQ(bent("[0,4]", "[0,18446744073709551615]"), invalid + "entry for t has bad data_offsets");
  EXPECT_EQ(bent("U32", "F16"), shape + "1*2 != size 4");
  EXPECT_EQ(bent("[1]", "[4294967296,4294967297]"), shape + "18446744073709551615*4 != size 4");
  EXPECT_EQ(bent("[1]", "[4611686018427387905]"), shape + "4611686018427387905*4 != size 4");
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

  const auto error = [&](const std::string& index, const std::string& config) {
    const std::string text = errorText([&] { load(index, config); });
    return text.substr(0, text.find("[json"));
  };
  const std::string badIndex = "index.json " + meta.indexPath + " invalid: ";
  const std::string badConfig = "config.json " + meta.configPath + " invalid: ";
  EXPECT_EQ(error("{", "{}"), badIndex);
  EXPECT_EQ(error("[]", "{}"), badIndex + "not a JSON object");
  EXPECT_EQ(error(R"({"weight_map":{"a":1}})", "{}"), badIndex + "no weight_map");
  EXPECT_EQ(error(indexText, "nul"), badConfig);
  EXPECT_EQ(error(indexText, "1"), badConfig + "not a JSON object");
  EXPECT_EQ(error(indexText, R"({"quantization":4})"), badConfig + "no quantization slot");
  EXPECT_EQ(error(indexText, R"({"quantization":{"m":{"group_size":32}}})"),
            badConfig + "quantization override m group_size 32 != base 64");
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
  const auto load = [&](const std::string& config) {
    writeFile(path, config);
    return ArchInfo::load(path);
  };
  const std::string full =
      archText(R"("tie_word_embeddings":true,"attention_k_eq_v":1,"hidden_activation":"relu",
    "layer_types":["sliding_attention","other","full_attention"],"rope_parameters":{
    "full_attention":{"rope_theta":5,"partial_rotary_factor":0.5},"sliding_attention":{"rope_theta":7.5}})");
  ArchInfo expected{2816, 2112, 704, 16, 7,   2, 256,  512,  262144,    1024,  30,
                    7.5,  5,    0.5, 3,  128, 8, true, true, {0, 0, 1}, "relu"};
  EXPECT_EQ(load(full), expected);
  const std::string plain =
      archText(R"("tie_word_embeddings":"true","attention_k_eq_v":2,"hidden_activation":4,
    "layer_types":["full_attention",4],"rope_parameters":{"full_attention":{"rope_theta":"5"}})");
  expected = {2816, 2112,   704,  16,    7,     2,       256,
              512,  262144, 1024, 30,    10000, 1000000, 0.25,
              3,    128,    8,    false, false, {},      "gelu_pytorch_tanh"};
  EXPECT_EQ(load(plain), expected);

  const std::string invalid = "config.json " + path + " invalid: ";
  const auto bent = [&](const char* from, const char* to) {
    return errorText([&] { load(replaced(plain, from, to)); });
  };
  EXPECT_EQ(bent("text_config", "config"), invalid + "no text_config");
  EXPECT_EQ(bent("\"head_dim\":256,\"global_head_dim\":512", "\"x\":1"), invalid + "missing head_dim");
  EXPECT_EQ(bent("2112", R"("2112")"), invalid + "missing intermediate_size");
  EXPECT_EQ(bent("262144", "9223372036854775808"), invalid + "missing vocab_size");
  EXPECT_EQ(bent("262144", "1e19"), invalid + "missing vocab_size");
  EXPECT_EQ(bent("262144", "9007199254740993.0"), invalid + "missing vocab_size");
  EXPECT_EQ(bent("softcapping", "z"), invalid + "missing final_logit_softcapping");
}

}  // namespace
}  // namespace vellicor::testing
