// SPDX-License-Identifier: Apache-2.0
// Bytes that several hold and nobody changes: an access unit on its way from packets to files,
// decoders and the application, copied once, when packets become units.
//
// A pool gives the memory of units that are gone to the next ones, so that a stream that runs
// allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zelta::core_service::media {

class shared_bytes {
 public:
  shared_bytes() = default;
  // `data` is valid and unchanged as long as `owner` lives.
  shared_bytes(std::shared_ptr<const void> owner, const uint8_t* data, size_t size)
      : owner_(std::move(owner)), data_(data), size_(size) {}

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  std::shared_ptr<const void> owner_;
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Any thread.
class byte_pool {
 public:
  // Keeps up to `most_idle_bytes` of memory that nobody uses.
  explicit byte_pool(size_t most_idle_bytes = size_t{64} << 20);

  struct block {
    std::shared_ptr<uint8_t> memory;
    size_t capacity = 0;
  };
  // At least `bytes` of memory, back in the pool when the last owner lets go, which may be after
  // the pool itself.
  block take(size_t bytes);

 private:
  struct state;
  std::shared_ptr<state> state_;
};

// Bytes that grow, until they are shared. One thread; the pool is borrowed.
class byte_builder {
 public:
  explicit byte_builder(byte_pool& pool) : pool_(pool) {}

  void append(const uint8_t* bytes, size_t count);
  // Room for `count` more bytes, to be written by the caller before anything else is called.
  uint8_t* extend(size_t count);
  // For what is known only later, such as a length.
  uint8_t* data() { return block_.memory.get(); }
  size_t size() const { return size_; }
  void clear() { size_ = 0; }
  // Takes back what was built behind the first `size` bytes.
  void shorten(size_t size) { size_ = size < size_ ? size : size_; }
  // What has been built; begins anew.
  shared_bytes take();

 private:
  byte_pool& pool_;
  byte_pool::block block_;
  size_t size_ = 0;
};

}  // namespace zelta::core_service::media
