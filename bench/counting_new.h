// Counts the heap of a whole program: include once, in its one source file.
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace zel::bench {

inline std::atomic<std::int64_t> heap_allocations{0};  // ever
inline std::atomic<std::int64_t> heap_bytes{0};        // now, as the heap rounds them

}  // namespace zel::bench

void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) std::abort();
  ++zel::bench::heap_allocations;
  zel::bench::heap_bytes += static_cast<std::int64_t>(::_msize(block));
  return block;
}

void operator delete(void* block) noexcept {
  if (block != nullptr) zel::bench::heap_bytes -= static_cast<std::int64_t>(::_msize(block));
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}
