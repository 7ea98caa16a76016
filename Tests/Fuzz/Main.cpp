#include <cstdint>

#include "Tests/Fuzz/Targets.h"

namespace {

using vellicor::fuzz::Target;

/// Compiled once per target, whose name VELLICOR_FUZZ_TARGET is. Not a constant for a name of no target.
constexpr Target target = [] {
  for (const Target& candidate : vellicor::fuzz::targets) {
    if (candidate.name == VELLICOR_FUZZ_TARGET) return candidate;
  }
  throw "no such target";
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  target.run(std::as_bytes(std::span(data, size)));
  return 0;
}
