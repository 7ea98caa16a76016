#include <cstdint>
#include <cstdlib>

#include "Tests/Fuzz/Targets.h"

namespace {

/// Compiled once per target, which VELLICOR_FUZZ_TARGET names.
const vellicor::fuzz::Target& target() {
  for (const auto& candidate : vellicor::fuzz::targets) {
    if (candidate.name == VELLICOR_FUZZ_TARGET) return candidate;
  }
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  target().run(std::as_bytes(std::span(data, size)));
  return 0;
}
