#include "Tests/Remote/ScriptedTransport.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"

namespace vellicor::testing {
namespace {

using Known = RemoteSnapshotLoader::KnownSource;
const std::string indexName = IndexLoader::indexFilename;

std::string prefixed(std::uint64_t length, const std::string& rest) {
  std::string shard;
  for (int shift = 0; shift < 64; shift += 8) shard += static_cast<char>(length >> shift & 0xFF);
  return shard + rest;
}

/// A shard of one tensor, 64 bytes after a header.
std::string shard(const std::string& tensor) {
  const std::string header = "{\"" + tensor + R"(":{"dtype":"BF16","shape":[32],"data_offsets":[0,64]}})";
  return prefixed(header.size(), header + std::string(64, 'x'));
}

/// Serves the metadata and the ranges of two shards with their index and configuration.
struct SnapshotHub : ScriptedHub {
  std::map<std::string, std::string> files{{indexName, R"({"weight_map":{"b":"s2","a":"s1","c":"s1"}})"},
                                           {"s1", shard("a")},
                                           {"s2", shard("b")},
                                           {"config.json", R"({"quantization":{},"text_config":{
    "hidden_size":1,"intermediate_size":1,"moe_intermediate_size":1,"num_attention_heads":1,"head_dim":1,
    "num_key_value_heads":1,"num_global_key_value_heads":1,"global_head_dim":1,"vocab_size":1,
    "sliding_window":1,"final_logit_softcapping":1,"num_hidden_layers":1,"num_experts":9,"top_k_experts":1}})"}};
  std::string acceptRanges = "bytes", elsewhere;

  Answer answer(const HttpRequest& request) {
    const std::string name = std::filesystem::path(request.url.string()).filename();
    const std::string size = std::to_string(files.at(name).size());
    const std::string at = name == elsewhere ? std::string(40, 'd') : commit;
    Headers headers = {{"x-repo-commit", at}, {"x-linked-size", size}, {"accept-ranges", acceptRanges}};
    if (request.method == "HEAD") return {302, headers, {}};
    const std::string range = request.headers.get("range").value().substr(6);
    const std::size_t first = std::stoul(range), end = std::stoul(range.substr(range.find('-') + 1)) + 1;
    const std::string length = std::to_string(end - first), place = "bytes " + range + "/" + size;
    headers = {{"content-length", length}, {"content-range", place}};
    return {206, headers, {files.at(name).substr(first, end - first)}};
  }

  RemoteSnapshot load(Known known) {
    transport->rule = [this](const HttpRequest& request) { return answer(request); };
    return RemoteSnapshotLoader::load(source, known, directory / "meta", &audit);
  }
};

TEST(RemoteSnapshotLoader, RefusalsLeaveNoTemporaryFile) {
  const std::string header = "safetensors header at s1 ", index = SnapshotHub().files[indexName];
  const std::string differs = " commit differs from index commit",
                    unknown = "source fingerprint " + hashData(index) + " for ";
  const struct {
    std::string file, content, outcome;
    std::size_t requests;
    std::string elsewhere = "", acceptRanges = "bytes";
    Known known = Known::accept;
  } rows[] = {
      {"config.json", std::string(1048577, ' '), "remote file config.json size 1048577 exceeds cap 1048576",
       3},
      {indexName, std::string(4194305, ' '), "remote file " + indexName + " size 4194305 exceeds cap 4194304",
       2},
      {indexName, R"({"weight_map":{}})", "no error", 4},
      {indexName, index, protocol + "config" + differs, 2, "config.json"},
      {indexName, index, protocol + "shard s2" + differs, 8, "s2"},
      {indexName, index, protocol + "shard s1 does not advertise byte ranges", 5, "", "none"},
      {indexName, index, unknown, 4, "", "bytes", Known::require},
      {"s1", "7 bytes", protocol + "range 0-7 exceeds s1", 5},
      {"s1", prefixed(16777217, std::string(16777217, ' ')), header + "size 16777217 exceeds bound", 6},
      {"s1", prefixed(16777216, "{}" + std::string(16777214, ' ')), "no error", 10},
      {"s1", prefixed(3, "{}"), header + "size 3 exceeds bound", 6},
      {"s1", prefixed(2, "[]"), header + "invalid: header is not a JSON object", 7}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.outcome);
    SnapshotHub hub;
    hub.files[row.file] = row.content;
    hub.elsewhere = row.elsewhere;
    hub.acceptRanges = row.acceptRanges;
    EXPECT_THAT(errorText([&] { hub.load(row.known); }), StartsWith(row.outcome));
    EXPECT_EQ(hub.transport->wire.size(), row.requests);
    EXPECT_EQ(hub.leftovers(), 0);
  }
}

}  // namespace
}  // namespace vellicor::testing
