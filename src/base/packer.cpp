// SPDX-License-Identifier: Apache-2.0
#include "base/packer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "integers are copied as they stand in memory; this machine needs byte swaps here"
#endif

namespace zelta::base {
namespace {

constexpr size_t kFirstBufferBytes = 256;

}  // namespace

packer::packer() {
  buffer_.resize(kFirstBufferBytes);
  reset();
}

void packer::reset() {
  position_ = kLengthPrefixBytes;
  length_ = 0;
}

void packer::check_size(size_t size, uint32_t position) {
  if (buffer_.size() < position + size)
    buffer_.resize(std::max(position + size, 2 * buffer_.size()));
}

packer& packer::push_bytes(const void* bytes, size_t size) {
  replace(bytes, size, position_);
  position_ += static_cast<uint32_t>(size);
  return *this;
}

void packer::replace(const void* bytes, size_t size, uint32_t position) {
  check_size(size, position);
  // An empty payload has no address.
  if (size > 0) std::memcpy(buffer_.data() + position, bytes, size);
}

packer& packer::push(uint8_t value) {
  return push_bytes(&value, sizeof value);
}
packer& packer::push(uint16_t value) {
  return push_bytes(&value, sizeof value);
}
packer& packer::push(uint32_t value) {
  return push_bytes(&value, sizeof value);
}
packer& packer::push(uint64_t value) {
  return push_bytes(&value, sizeof value);
}
packer& packer::push(int8_t value) {
  return push(static_cast<uint8_t>(value));
}
packer& packer::push(int16_t value) {
  return push(static_cast<uint16_t>(value));
}
packer& packer::push(int32_t value) {
  return push(static_cast<uint32_t>(value));
}
packer& packer::push(int64_t value) {
  return push(static_cast<uint64_t>(value));
}

packer& packer::push(const std::string& value) {
  push(static_cast<uint32_t>(value.size()));
  return push_bytes(value.data(), value.size());
}

void packer::write(uint16_t value, uint32_t position) {
  replace(&value, sizeof value, position);
}
void packer::write(uint32_t value, uint32_t position) {
  replace(&value, sizeof value, position);
}

packer& packer::pack() {
  length_ = position_;
  write(static_cast<uint32_t>(length_), 0U);
  return *this;
}

std::vector<char> packer::take_buffer() {
  std::vector<char> taken = std::move(buffer_);
  taken.resize(length_);
  reset();
  return taken;
}

packer& operator<<(packer& p, uint8_t value) {
  return p.push(value);
}
packer& operator<<(packer& p, uint16_t value) {
  return p.push(value);
}
packer& operator<<(packer& p, uint32_t value) {
  return p.push(value);
}
packer& operator<<(packer& p, uint64_t value) {
  return p.push(value);
}
packer& operator<<(packer& p, int32_t value) {
  return p.push(value);
}
packer& operator<<(packer& p, const std::string& value) {
  return p.push(value);
}

packer& operator<<(packer& p, const std::vector<uint32_t>& values) {
  p.push(static_cast<uint32_t>(values.size()));
  for (const uint32_t value : values) p.push(value);
  return p;
}

packer& operator<<(packer& p, const std::vector<uint8_t>& bytes) {
  return p.push(static_cast<uint32_t>(bytes.size())).push_bytes(bytes.data(), bytes.size());
}

unpacker::unpacker(const char* data, size_t size, bool copy) : data_(data), size_(size) {
  if (copy) {
    copy_.assign(data, size);
    data_ = copy_.data();
  }
}

unpacker::unpacker(const char* data, size_t size, std::string& payload, size_t payload_position)
    : data_(data), size_(size), payload_(&payload), payload_position_(payload_position) {}

void unpacker::rewind() {
  position_ = 0;
  ok_ = true;
}

bool unpacker::check_size(size_t size, uint32_t position) {
  ok_ = ok_ && position <= size_ && size <= size_ - position;
  return ok_;
}

template <class T>
T unpacker::pop() {
  T value = 0;
  if (check_size(sizeof value, position_)) {
    std::memcpy(&value, data_ + position_, sizeof value);
    position_ += static_cast<uint32_t>(sizeof value);
  }
  return value;
}

uint8_t unpacker::pop_uint8() {
  return pop<uint8_t>();
}
uint16_t unpacker::pop_uint16() {
  return pop<uint16_t>();
}
uint32_t unpacker::pop_uint32() {
  return pop<uint32_t>();
}
uint64_t unpacker::pop_uint64() {
  return pop<uint64_t>();
}

void unpacker::pop_string(std::string& out) {
  const uint32_t count = pop_uint32();
  if (!ok_) return;
  if (payload_ != nullptr && position_ == payload_position_) {
    ok_ = count == payload_->size();
    if (ok_) out.swap(*std::exchange(payload_, nullptr));
    return;
  }
  if (!check_size(count, position_)) return;
  out.assign(data_ + position_, count);
  position_ += count;
}

void unpacker::pop_bytes(std::vector<uint8_t>& out, size_t count) {
  if (!check_size(count, position_)) return;
  out.insert(out.end(), data_ + position_, data_ + position_ + count);
  position_ += static_cast<uint32_t>(count);
}

std::string unpacker::pop_string() {
  std::string text;
  pop_string(text);
  return text;
}

unpacker& operator>>(unpacker& u, uint8_t& value) {
  return value = u.pop_uint8(), u;
}
unpacker& operator>>(unpacker& u, uint16_t& value) {
  return value = u.pop_uint16(), u;
}
unpacker& operator>>(unpacker& u, uint32_t& value) {
  return value = u.pop_uint32(), u;
}
unpacker& operator>>(unpacker& u, uint64_t& value) {
  return value = u.pop_uint64(), u;
}
unpacker& operator>>(unpacker& u, int32_t& value) {
  return value = static_cast<int32_t>(u.pop_uint32()), u;
}
unpacker& operator>>(unpacker& u, std::string& value) {
  return u.pop_string(value), u;
}

unpacker& operator>>(unpacker& u, std::vector<uint32_t>& values) {
  const uint32_t count = u.pop_uint32();
  if (count > u.remaining() / sizeof(uint32_t)) {
    u.fail();
    return u;
  }
  values.reserve(count);
  for (uint32_t i = 0; i < count; ++i) values.push_back(u.pop_uint32());
  return u;
}

unpacker& operator>>(unpacker& u, std::vector<uint8_t>& bytes) {
  const uint32_t count = u.pop_uint32();
  if (count > u.remaining()) {
    u.fail();
    return u;
  }
  // Grown to exactly the announced count, so that a layout that is read once wastes nothing.
  if (count > bytes.capacity()) bytes.reserve(count);
  u.pop_bytes(bytes, count);
  return u;
}

}  // namespace zelta::base
