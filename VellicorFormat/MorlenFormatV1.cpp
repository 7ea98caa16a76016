#include "VellicorFormat/MorlenFormatV1.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <utility>

#include "VellicorFormat/Unicode.h"

namespace vellicor {
namespace {

struct Describe {
  std::string operator()(const MorlenFormatError::Invalid& error) const {
    return error.field + ": " + error.reason;
  }
  std::string operator()(const MorlenFormatError::Overflow& error) const {
    return error.field + ": arithmetic overflow";
  }
  std::string operator()(const MorlenFormatError::Truncated& error) const {
    return error.field + ": truncated";
  }
};

bool isCanonicalName(std::string_view name) { return !name.empty() && name != "." && name != ".."; }

}  // namespace

std::optional<MorlenFormatV1::DType> MorlenFormatV1::dtypeFromRaw(std::uint8_t raw) {
  if (raw > static_cast<std::uint8_t>(DType::fp32)) return std::nullopt;
  return static_cast<DType>(raw);
}

std::string_view MorlenFormatV1::name(DType dtype) {
  switch (dtype) {
    case DType::u32:
      return "u32";
    case DType::bf16:
      return "bf16";
    case DType::fp16:
      return "fp16";
    case DType::fp32:
      return "fp32";
  }
  std::abort();
}

std::string MorlenFormatV1::layerPath(std::string_view file) {
  return std::string(expertsDirectory).append("/").append(file);
}

std::uint64_t MorlenFormatV1::layerBytes(std::int64_t expertsPerLayer, std::uint64_t expertStride,
                                         std::string_view field) {
  return morlenCheckedMultiply(static_cast<std::uint64_t>(expertsPerLayer), expertStride, field);
}

MorlenFormatError::MorlenFormatError(Payload payload)
    : payload_(std::move(payload)), text_(std::visit(Describe{}, payload_)) {}

MorlenFormatError MorlenFormatError::invalid(std::string field, std::string reason) {
  return MorlenFormatError(Invalid{std::move(field), std::move(reason)});
}

MorlenFormatError MorlenFormatError::overflow(std::string field) {
  return MorlenFormatError(Overflow{std::move(field)});
}

MorlenFormatError MorlenFormatError::truncated(std::string field) {
  return MorlenFormatError(Truncated{std::move(field)});
}

std::uint64_t morlenCheckedAdd(std::uint64_t a, std::uint64_t b, std::string_view field) {
  if (b > std::numeric_limits<std::uint64_t>::max() - a)
    throw MorlenFormatError::overflow(std::string(field));
  return a + b;
}

std::uint64_t morlenCheckedMultiply(std::uint64_t a, std::uint64_t b, std::string_view field) {
  if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a)
    throw MorlenFormatError::overflow(std::string(field));
  return a * b;
}

std::uint64_t morlenRoundUpToAlignment(std::uint64_t value, std::string_view field) {
  constexpr std::uint64_t mask = MorlenFormatV1::alignmentBytes - 1;
  return morlenCheckedAdd(value, mask, field) & ~mask;
}

void MorlenPathValidator::validateRelativePath(std::string_view path, std::string_view field) {
  const auto refuse = [field](const char* reason) {
    return MorlenFormatError::invalid(std::string(field), reason);
  };
  if (path.empty() || path.front() == '/' || path.find('\0') != std::string_view::npos)
    throw refuse("unsafe relative path");
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (!isCanonicalName(path.substr(start, end - start))) throw refuse("non-canonical path");
    start = end + 1;
  }
}

void MorlenPathValidator::validateBasename(std::string_view name, std::string_view field) {
  validateRelativePath(name, field);
  if (name.find('/') != std::string_view::npos)
    throw MorlenFormatError::invalid(std::string(field), "expected basename");
}

std::string MorlenPathValidator::appleFilesystemKey(std::string_view path) {
  return lowercased(canonicalComposition(path));
}

}  // namespace vellicor
