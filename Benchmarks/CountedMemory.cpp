#include "Benchmarks/CountedMemory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

// The program's own allocation functions: each block begins with its size, in room that keeps it aligned.

namespace {

using vellicor::bench::CountedMemory;

constexpr std::size_t room = alignof(std::max_align_t);
static_assert(room >= sizeof(std::size_t));

void raisePeak(std::size_t live) {
  std::size_t peak = CountedMemory::peak.load(std::memory_order_relaxed);
  while (live > peak && !CountedMemory::peak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
}

void give(void* place) noexcept {
  if (place == nullptr) return;
  auto* block = static_cast<std::byte*>(place) - room;
  CountedMemory::live.fetch_sub(*reinterpret_cast<std::size_t*>(block), std::memory_order_relaxed);
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  if (size > SIZE_MAX - room) throw std::bad_alloc();
  auto* block = static_cast<std::byte*>(std::malloc(size + room));
  if (block == nullptr) throw std::bad_alloc();
  *reinterpret_cast<std::size_t*>(block) = size;
  raisePeak(CountedMemory::live.fetch_add(size, std::memory_order_relaxed) + size);
  return block + room;
}

void operator delete(void* place) noexcept { give(place); }
void operator delete(void* place, std::size_t) noexcept { give(place); }
