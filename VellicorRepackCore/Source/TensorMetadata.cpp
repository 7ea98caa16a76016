#include "VellicorRepackCore/Source/TensorMetadata.h"

#include <array>
#include <cstddef>

namespace vellicor {
namespace {

struct DtypeFacts {
  std::string_view headerText;
  std::string_view name;
  std::uint64_t elementBytes;
};

/// Indexed by the raw value.
constexpr std::array<DtypeFacts, 4> dtypeFacts = {{
    {"U32", "u32", 4},
    {"BF16", "bf16", 2},
    {"F16", "fp16", 2},
    {"F32", "fp32", 4},
}};

const DtypeFacts& factsOf(SourceTensor::Dtype dtype) { return dtypeFacts[static_cast<std::size_t>(dtype)]; }

}  // namespace

std::optional<SourceTensor::Dtype> SourceTensor::dtypeFromHeader(std::string_view text) {
  for (std::size_t raw = 0; raw < dtypeFacts.size(); ++raw) {
    if (dtypeFacts[raw].headerText == text) return static_cast<Dtype>(raw);
  }
  return std::nullopt;
}

std::string_view SourceTensor::dtypeName(Dtype dtype) { return factsOf(dtype).name; }

std::uint64_t SourceTensor::elementBytes(Dtype dtype) { return factsOf(dtype).elementBytes; }

}  // namespace vellicor
