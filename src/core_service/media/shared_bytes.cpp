// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/shared_bytes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace zelta::core_service::media {
namespace {

// Blocks have one of these sizes, each twice the one before. What is larger than all is rare.
constexpr size_t kSmallest = 256;
constexpr size_t kSizes = 15;
// In front of every block, for what std::shared_ptr keeps of it: one allocation, not two.
constexpr size_t kControlBytes = 128;
// As what operator new gives.
constexpr size_t kAligned = alignof(std::max_align_t);

size_t size_class(size_t bytes) {
  size_t of = 0;
  while (of < kSizes && (kSmallest << of) < bytes) ++of;
  return of;
}

}  // namespace

struct byte_pool::state {
  explicit state(size_t most) : most_idle_bytes(most) {}
  ~state() {
    for (auto& of_size : idle) {
      for (uint8_t* const memory : of_size) ::operator delete(memory);
    }
  }

  uint8_t* take(size_t of) {
    {
      const std::lock_guard<std::mutex> guard(lock);
      if (of < kSizes && !idle[of].empty()) {
        uint8_t* const memory = idle[of].back();
        idle[of].pop_back();
        idle_bytes -= kSmallest << of;
        return memory;
      }
    }
    return nullptr;
  }

  void give(uint8_t* memory, size_t of) {
    if (of < kSizes) {
      const std::lock_guard<std::mutex> guard(lock);
      if (idle_bytes + (kSmallest << of) <= most_idle_bytes) {
        idle_bytes += kSmallest << of;
        idle[of].push_back(memory);
        return;
      }
    }
    ::operator delete(memory);
  }

  const size_t most_idle_bytes;
  std::mutex lock;
  size_t idle_bytes = 0;
  std::array<std::vector<uint8_t*>, kSizes> idle;
};

namespace {

// Puts the control block of a std::shared_ptr in front of the bytes. It is the last to go, so its
// end is the block's.
template <class T, class State>
struct block_allocator {
  using value_type = T;
  block_allocator(uint8_t* from, size_t size_of, std::shared_ptr<State> home)
      : memory(from), of(size_of), pool(std::move(home)) {}
  template <class U>
  explicit block_allocator(const block_allocator<U, State>& other)
      : memory(other.memory), of(other.of), pool(other.pool) {}

  T* allocate(size_t /*one*/) {
    static_assert(sizeof(T) <= kControlBytes);
    static_assert(alignof(T) <= kAligned);
    return reinterpret_cast<T*>(memory);
  }
  void deallocate(T* /*control*/, size_t /*one*/) { pool->give(memory, of); }

  uint8_t* memory;
  size_t of;
  std::shared_ptr<State> pool;
};

}  // namespace

byte_pool::byte_pool(size_t most_idle_bytes) : state_(std::make_shared<state>(most_idle_bytes)) {}

byte_pool::block byte_pool::take(size_t bytes) {
  const size_t of = size_class(bytes);
  const size_t capacity = of < kSizes ? kSmallest << of : bytes;
  uint8_t* memory = state_->take(of);
  if (memory == nullptr) memory = static_cast<uint8_t*>(::operator new(kControlBytes + capacity));
  return {std::shared_ptr<uint8_t>(
              memory + kControlBytes, [](uint8_t*) {},
              block_allocator<uint8_t, state>(memory, of, state_)),
          capacity};
}

void byte_builder::append(const uint8_t* bytes, size_t count) {
  if (count > 0) std::memcpy(extend(count), bytes, count);
}

uint8_t* byte_builder::extend(size_t count) {
  if (size_ + count > block_.capacity) {
    byte_pool::block larger = pool_.take(std::max(size_ + count, 2 * block_.capacity));
    if (size_ > 0) std::memcpy(larger.memory.get(), block_.memory.get(), size_);
    block_ = std::move(larger);
  }
  uint8_t* const room = block_.memory.get() + size_;
  size_ += count;
  return room;
}

shared_bytes byte_builder::take() {
  const uint8_t* const data = block_.memory.get();
  shared_bytes whole(std::move(block_.memory), data, size_);
  block_ = {};
  size_ = 0;
  return whole;
}

}  // namespace zelta::core_service::media
