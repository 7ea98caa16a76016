#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"

namespace vellicor::testing {

/// A model of two layers with four experts, small enough to reckon with by hand, for tests to bend in one
/// place. All tensors lie one after the other in one shard, after 1000 bytes of header.
struct TinyModel {
  using Dtype = SourceTensor::Dtype;

  ArchInfo arch;
  IndexLoader::SourceMetadata meta;
  Safetensors::Header header;
  std::uint64_t end = 1000;

  TinyModel() {
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

/// `text` with the first `from` in it replaced.
inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

/// A change to a valid value, and the text of the error that it leads to.
template <typename T>
using Bent = std::pair<std::function<void(T&)>, std::string>;

/// Applies each change to a copy of its own and expects the error of `action` on it.
template <typename T, typename Action>
void expectErrors(const T& valid, const std::vector<Bent<T>>& rows, const Action& action) {
  for (const Bent<T>& row : rows) {
    T value = valid;
    row.first(value);
    EXPECT_EQ(errorText([&] { action(value); }), row.second);
  }
}

}  // namespace vellicor::testing
