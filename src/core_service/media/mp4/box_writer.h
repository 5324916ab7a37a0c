// SPDX-License-Identifier: Apache-2.0
// Bytes of ISO base media boxes (ISO/IEC 14496-12): big-endian fields, sizes filled in at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zelta::core_service::media::mp4 {

class box_writer {
 public:
  // A box that is open while this lives.
  class box {
   public:
    box(box_writer& to, const char* type) : to_(to), begin_(to.bytes.size()) {
      to_.put<4>(0);
      to_.text(type);
    }
    box(box_writer& to, const char* type, uint8_t version, uint32_t flags) : box(to, type) {
      to_.put<1>(version);
      to_.put<3>(flags);
    }
    box(const box&) = delete;
    box& operator=(const box&) = delete;
    ~box() { to_.put_at<4>(begin_, to_.bytes.size() - begin_); }

   private:
    box_writer& to_;
    const size_t begin_;
  };

  // The low `Size` bytes of `value`.
  template <size_t Size>
  void put(uint64_t value) {
    bytes.resize(bytes.size() + Size);
    put_at<Size>(bytes.size() - Size, value);
  }
  template <size_t Size>
  void put_at(size_t at, uint64_t value) {
    for (size_t i = 0; i < Size; ++i) {
      bytes[at + i] = static_cast<uint8_t>(value >> (8 * (Size - 1 - i)));
    }
  }
  // Four characters.
  void text(const char* type) { bytes.insert(bytes.end(), type, type + 4); }
  void raw(const std::vector<uint8_t>& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  // Of a picture that is neither moved nor turned.
  void unity_matrix() {
    for (const uint32_t value : {0x10000U, 0U, 0U, 0U, 0x10000U, 0U, 0U, 0U, 0x40000000U}) {
      put<4>(value);
    }
  }
  void zeros(size_t count) { bytes.resize(bytes.size() + count); }

  std::vector<uint8_t> bytes;
};

}  // namespace zelta::core_service::media::mp4
