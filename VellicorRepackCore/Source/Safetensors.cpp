#include "VellicorRepackCore/Source/Safetensors.h"

#include <limits>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/JsonReading.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {
namespace {

constexpr std::uint64_t maximumU64 = std::numeric_limits<std::uint64_t>::max();

/// a x b, or nothing when it does not fit.
std::optional<std::uint64_t> product(std::uint64_t a, std::uint64_t b) {
  if (b != 0 && a > maximumU64 / b) return std::nullopt;
  return a * b;
}

/// The number of elements of a shape, or nothing when it does not fit.
std::optional<std::uint64_t> elementCount(const std::vector<std::uint64_t>& shape) {
  std::optional<std::uint64_t> count = 1;
  for (const std::uint64_t dimension : shape) {
    count = product(*count, dimension);
    if (!count) break;
  }
  return count;
}

/// Reads the entries of one header, each in the same order: type, shape, offsets, place in the file, size.
class EntryReader {
 public:
  EntryReader(const std::string& path, std::uint64_t fileSize, std::uint64_t headerBytes)
      : path_(path),
        shardPath_(path),
        fileSize_(fileSize),
        dataStart_(Safetensors::lengthPrefixBytes + headerBytes) {}

  SourceTensor read(const std::string& name, const nlohmann::json& entry) const {
    if (!entry.is_object()) throw invalid(name, "is not a dict");
    SourceTensor tensor;
    tensor.name = name;
    tensor.shardPath = shardPath_;
    tensor.dtype = readDtype(name, entry);
    tensor.shape = readShape(name, entry);
    readRange(name, entry, tensor);
    checkSize(tensor);
    return tensor;
  }

 private:
  RepackError invalid(const std::string& name, std::string_view problem) const {
    return RepackError(
        SafetensorsHeaderInvalid{.path = path_, .detail = fmt::format("entry for {} {}", name, problem)});
  }

  SourceTensor::Dtype readDtype(const std::string& name, const nlohmann::json& entry) const {
    const auto dtype = entry.find("dtype");
    if (dtype == entry.end() || !dtype->is_string()) throw invalid(name, "has no dtype");
    const auto& text = dtype->get_ref<const std::string&>();
    const auto known = SourceTensor::dtypeFromHeader(text);
    if (!known) throw RepackError(SafetensorsUnknownDtype{.path = path_, .dtype = text});
    return *known;
  }

  std::vector<std::uint64_t> readShape(const std::string& name, const nlohmann::json& entry) const {
    const auto shape = entry.find("shape");
    if (shape == entry.end() || !shape->is_array()) throw invalid(name, "has no shape");
    std::vector<std::uint64_t> dimensions;
    dimensions.reserve(shape->size());
    for (const auto& element : *shape) {
      const auto dimension = exactUnsigned(element);
      if (!dimension) throw invalid(name, "has non-integer shape entry");
      dimensions.push_back(*dimension);
    }
    return dimensions;
  }

  void readRange(const std::string& name, const nlohmann::json& entry, SourceTensor& tensor) const {
    const auto offsets = entry.find("data_offsets");
    const bool isPair = offsets != entry.end() && offsets->is_array() && offsets->size() == 2;
    const auto begin = isPair ? exactUnsigned((*offsets)[0]) : std::nullopt;
    const auto end = isPair ? exactUnsigned((*offsets)[1]) : std::nullopt;
    if (!begin || !end || *end < *begin || *end > maximumU64 - dataStart_) {
      throw invalid(name, "has bad data_offsets");
    }
    const std::uint64_t absoluteEnd = dataStart_ + *end;
    if (absoluteEnd > fileSize_) {
      throw RepackError(SafetensorsTensorOutOfRange{
          .path = path_, .name = name, .end = absoluteEnd, .fileSize = fileSize_});
    }
    tensor.absoluteOffset = dataStart_ + *begin;
    tensor.sizeBytes = *end - *begin;
  }

  static void checkSize(const SourceTensor& tensor) {
    const std::uint64_t elementBytes = SourceTensor::elementBytes(tensor.dtype);
    const auto elements = elementCount(tensor.shape);
    const auto bytes = elements ? product(*elements, elementBytes) : std::nullopt;
    if (bytes == tensor.sizeBytes) return;
    throw RepackError(
        ShapeMismatch{.name = tensor.name,
                      .detail = fmt::format("shape product {}*{} != size {}", elements.value_or(maximumU64),
                                            elementBytes, tensor.sizeBytes)});
  }

  const std::string& path_;
  SharedText shardPath_;
  std::uint64_t fileSize_;
  std::uint64_t dataStart_;
};

}  // namespace

Safetensors::Header Safetensors::parseHeaderBytes(const std::string& path, std::uint64_t fileSize,
                                                  std::string_view headerBytes) {
  const std::uint64_t headerSize = headerBytes.size();
  if (headerSize > maximumHeaderBytes || fileSize < lengthPrefixBytes ||
      headerSize > fileSize - lengthPrefixBytes) {
    throw RepackError(SafetensorsHeaderTooLarge{.path = path, .size = headerSize});
  }
  const JsonTree tree = parseJson(headerBytes);
  const nlohmann::json& document = tree.root;
  if (!document.is_object()) {
    throw RepackError(SafetensorsHeaderInvalid{.path = path, .detail = "header is not a JSON object"});
  }
  const EntryReader reader(path, fileSize, headerSize);
  Header header;
  for (const auto& [name, entry] : document.items()) {
    if (name == "__metadata__") continue;
    header.tensors.push_back(reader.read(name, entry));
  }
  return header;
}

}  // namespace vellicor
