// SPDX-License-Identifier: Apache-2.0
#include "support/counted_new.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace zelta::test {
namespace {

std::atomic<size_t> count{0};

void* counted(size_t bytes) {
  count.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(bytes);  // NOLINT(cppcoreguidelines-no-malloc): what operator new stands on
}

}  // namespace

size_t allocations() {
  return count.load(std::memory_order_relaxed);
}

}  // namespace zelta::test

void* operator new(size_t bytes) {
  if (void* const memory = zelta::test::counted(bytes)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);  // NOLINT(cppcoreguidelines-no-malloc)
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);  // NOLINT(cppcoreguidelines-no-malloc)
}
