#include "Tests/Fuzz/FailingAllocation.h"

#include <algorithm>
#include <cstdlib>
#include <new>

thread_local std::size_t vellicor::fuzz::allocationsUntilFailure = 0;

void* operator new(std::size_t size) {
  using vellicor::fuzz::allocationsUntilFailure;
  if (allocationsUntilFailure > 0 && --allocationsUntilFailure == 0) throw std::bad_alloc();
  while (true) {
    if (void* const memory = std::malloc(std::max<std::size_t>(size, 1))) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}
/// What asks so has another way.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
