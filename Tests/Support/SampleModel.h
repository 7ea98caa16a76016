#pragma once

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"

namespace vellicor::testing {

/// A model of two layers with four experts, small enough to work out by hand, for tests to bend in one
/// place. All tensors lie one after the other in one shard, after 1000 bytes of header.
struct SampleModel {
  using Dtype = SourceTensor::Dtype;

  ArchInfo arch;
  IndexLoader::SourceMetadata meta;
  Safetensors::Header header;
  std::uint64_t end = 1000;

  SampleModel() {
    arch.numLayers = 2;
    arch.numExperts = 4;
    meta.bitsOverrides["language_model.layers.0.router.proj"] = {8};
    add("language_model.model.norm.weight", Dtype::bf16, {64});
    addQuantised("language_model.model.embed_tokens", {32}, 4);
    for (const std::string layer : {"language_model.layers.0.", "language_model.layers.1."}) {
      add(layer + "input_layernorm.weight", Dtype::bf16, {64});
      for (const std::string role : {"down", "gate", "up"})
        addQuantised(layer + "experts.switch_glu." + role + "_proj", {4, 2}, 4);
    }
    addQuantised("language_model.layers.0.router.proj", {4}, 8);
    addQuantised("vision_tower.patch", {2}, 4);
  }

  void add(const std::string& name, Dtype dtype, const std::vector<std::uint64_t>& shape) {
    std::uint64_t size = SourceTensor::elementBytes(dtype);
    for (const auto dimension : shape) size *= dimension;
    header.tensors.push_back({name, "shard-1", dtype, shape, end, size});
    end += size;
  }

  /// 64 values per row in words of `bits`-bit weights, with one scale and one bias.
  void addQuantised(const std::string& module, std::vector<std::uint64_t> shape, std::uint64_t bits) {
    shape.push_back(2 * bits);
    add(module + ".weight", Dtype::u32, shape);
    shape.back() = 1;
    add(module + ".scales", Dtype::bf16, shape);
    add(module + ".biases", Dtype::bf16, shape);
  }

  auto find(const std::string& name) {
    return std::find_if(header.tensors.begin(), header.tensors.end(),
                        [&](const SourceTensor& tensor) { return tensor.name == name; });
  }
  void remove(const std::string& name) { header.tensors.erase(find(name)); }

  RepackPlan plan(const std::string& outputDir = "/out/p") const {
    return RepackPlanner::plan(meta, arch, {header}, outputDir);
  }
};

}  // namespace vellicor::testing
