#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"

#include <new>
#include <unordered_map>

#include <fmt/format.h>

#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {
namespace {

RepackError failed(std::string_view reason) {
  return RepackError(ConfigurationInvalid{fmt::format("layout.json validation failed: {}", reason)});
}

MorlenPackedExpertsLayoutV1 readLayout(const std::string& path) {
  try {
    return MorlenPackedExpertsLayoutCodec::decode(
        Posix::readBoundedData(path, MorlenFormatV1::layoutMaxBytes));
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    throw failed(error.what());
  }
}

using PlannedLayers = std::unordered_map<std::int64_t, const LayerFilePlan*>;

PlannedLayers layersByIndex(const RepackPlan& plan) {
  PlannedLayers layers;
  for (const LayerFilePlan& layer : plan.layers) layers.emplace(layer.layerIndex, &layer);
  return layers;
}

void checkLayer(const MorlenLayerV1& layer, std::uint64_t expertStride, const PlannedLayers& plannedLayers) {
  const auto planned = plannedLayers.find(layer.layer);
  if (planned == plannedLayers.end()) throw failed("malformed layer");
  const auto experts = static_cast<std::int64_t>(layer.experts.size());
  if (experts != planned->second->expertsPerLayer || expertStride != planned->second->expertStride) {
    throw failed(fmt::format("plan mismatch in layer {}", layer.layer));
  }
}

}  // namespace

void MorlenLayoutValidator::validate(const std::string& path, const RepackPlan& plan, RepackAudit* audit) {
  const MorlenPackedExpertsLayoutV1 layout = readLayout(path);
  const PlannedLayers plannedLayers = layersByIndex(plan);
  std::int64_t experts = 0;
  for (const MorlenLayerV1& layer : layout.layers) {
    checkLayer(layer, layout.expertStride, plannedLayers);
    experts += static_cast<std::int64_t>(layer.experts.size());
  }
  if (layout.layers.size() != plan.layers.size()) throw failed("layer count mismatch");
  if (audit == nullptr) return;
  audit->packedExpertLayoutAuditLogicalIDCount = experts;
  audit->packedExpertLayoutOffsetValidationPassed = true;
}

}  // namespace vellicor
