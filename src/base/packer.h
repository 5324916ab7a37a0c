// SPDX-License-Identifier: Apache-2.0
// Writer and reader of packets.
//
// Integers are little-endian. A packet on the pipe is a 32-bit total length, its own four bytes
// included, and the body:
//
//     0       4       6
//     +-------+-------+--------- ...
//     | total |  uri  | fields
//     +-------+-------+--------- ...
//
// A string is a 32-bit byte count and its bytes. Neither class is thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelta::base {

// Bytes of the length that packer::pack() puts in front of the body.
constexpr size_t kLengthPrefixBytes = 4;

// Writes one packet into a buffer that grows as needed. reset() starts the next packet in the same
// storage.
class packer {
 public:
  packer();

  packer& push(uint8_t value);
  packer& push(uint16_t value);
  packer& push(uint32_t value);
  packer& push(uint64_t value);
  packer& push(int8_t value);
  packer& push(int16_t value);
  packer& push(int32_t value);
  packer& push(int64_t value);
  packer& push(const std::string& value);
  // The bytes alone, without a count.
  packer& push_bytes(const void* bytes, size_t size);

  // Replaces what stands at `position`, counted from the start of the buffer.
  void write(uint16_t value, uint32_t position);
  void write(uint32_t value, uint32_t position);

  // Completes the packet: writes the total length in front of the body.
  packer& pack();
  void reset();

  // Total bytes after pack(), the length prefix included; 0 before it.
  size_t length() const { return length_; }
  const char* buffer() const { return buffer_.data(); }
  const char* body() const { return buffer_.data() + kLengthPrefixBytes; }
  // Gives the finished packet away, cut to length(), and resets the packer.
  std::vector<char> take_buffer();

  // Makes room for `size` bytes at `position`.
  void check_size(size_t size, uint32_t position);

 private:
  void replace(const void* bytes, size_t size, uint32_t position);

  std::vector<char> buffer_;
  size_t length_ = 0;
  uint32_t position_ = 0;
};

packer& operator<<(packer& p, uint8_t value);
packer& operator<<(packer& p, uint16_t value);
packer& operator<<(packer& p, uint32_t value);
packer& operator<<(packer& p, uint64_t value);
packer& operator<<(packer& p, int32_t value);
packer& operator<<(packer& p, const std::string& value);
packer& operator<<(packer& p, const std::vector<uint32_t>& values);
packer& operator<<(packer& p, const std::vector<uint8_t>& bytes);

// Reads the body of one packet. The first read past the end makes this and every later read fail:
// it gives 0 or the empty string, and ok() is false for good. So a packet is tested once, after
// its last field.
class unpacker {
 public:
  // With `copy` false the bytes must outlive the unpacker.
  unpacker(const char* data, size_t size, bool copy);

  // A body whose first string of `payload` bytes was read apart, straight into the storage in which
  // the frame will keep it: `data` is the body without those bytes, `payload_position` their place.
  // Reading that string swaps `payload` into the frame, so its bytes are not copied again; the
  // storage that the frame had before comes back in `payload`, to be used for the next one.
  unpacker(const char* data, size_t size, std::string& payload, size_t payload_position);
  unpacker(const unpacker&) = delete;
  unpacker& operator=(const unpacker&) = delete;

  uint8_t pop_uint8();
  uint16_t pop_uint16();
  uint32_t pop_uint32();
  uint64_t pop_uint64();
  std::string pop_string();
  // Reuses the storage of `out`. `out` is untouched on failure.
  void pop_string(std::string& out);
  // Appends `count` bytes to `out`.
  void pop_bytes(std::vector<uint8_t>& out, size_t count);

  // Back to the first byte; a failure is forgotten.
  void rewind();
  // False, and from then on failed, when `size` bytes at `position` go past the end.
  bool check_size(size_t size, uint32_t position);

  // For a field whose value can't be: fails as a short read does.
  void fail() { ok_ = false; }
  bool ok() const { return ok_; }
  // Every field was there and no byte is left over.
  bool complete() const { return ok_ && position_ == size_ && payload_ == nullptr; }
  size_t remaining() const { return ok_ ? size_ - position_ : 0; }

 private:
  template <class T>
  T pop();

  std::string copy_;
  const char* data_;
  size_t size_;
  uint32_t position_ = 0;
  bool ok_ = true;
  std::string* payload_ = nullptr;
  size_t payload_position_ = 0;
};

unpacker& operator>>(unpacker& u, uint8_t& value);
unpacker& operator>>(unpacker& u, uint16_t& value);
unpacker& operator>>(unpacker& u, uint32_t& value);
unpacker& operator>>(unpacker& u, uint64_t& value);
unpacker& operator>>(unpacker& u, int32_t& value);
unpacker& operator>>(unpacker& u, std::string& value);
// Both append to what the vector holds. A count that the remaining bytes can't hold fails before
// anything is allocated.
unpacker& operator>>(unpacker& u, std::vector<uint32_t>& values);
unpacker& operator>>(unpacker& u, std::vector<uint8_t>& bytes);

}  // namespace zelta::base
