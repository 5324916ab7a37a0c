// SPDX-License-Identifier: Apache-2.0
#include "support/counted_new.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace zelta::test {
namespace {

std::atomic<size_t> count{0};

}  // namespace

size_t allocations() {
  return count.load(std::memory_order_relaxed);
}

}  // namespace zelta::test

// NOLINTBEGIN(cppcoreguidelines-no-malloc): these are what new and delete stand on
void* operator new(size_t bytes) {
  zelta::test::count.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(bytes)) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  zelta::test::count.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)
