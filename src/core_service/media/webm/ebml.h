// SPDX-License-Identifier: Apache-2.0
// Elements of EBML (RFC 8794), of which WebM files are made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zelta::core_service::media::webm {

class ebml_writer {
 public:
  // The low `size` bytes of `value`.
  void put(uint64_t value, size_t size) {
    for (size_t i = size; i-- > 0;) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
  // An id as it stands in the tables, its length marker included (RFC 8794, section 5).
  void id(uint32_t value) {
    put(value, value > 0xffffff ? 4 : value > 0xffff ? 3 : value > 0xff ? 2 : 1);
  }
  // In eight bytes, so that what it is of may grow (section 4).
  void size(uint64_t value) { put(uint64_t{1} << 56U | value, 8); }
  void unknown_size() { size((uint64_t{1} << 56U) - 1); }

  void element(uint32_t name, const std::vector<uint8_t>& content) {
    id(name);
    size(content.size());
    bytes.insert(bytes.end(), content.begin(), content.end());
  }
  void element(uint32_t name, const ebml_writer& content) { element(name, content.bytes); }
  void text(uint32_t name, const std::string& value) {
    element(name, std::vector<uint8_t>(value.begin(), value.end()));
  }
  // Numbers in eight bytes, whatever they are.
  void number(uint32_t name, uint64_t value) {
    id(name);
    size(8);
    put(value, 8);
  }
  void real(uint32_t name, double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    number(name, bits);
  }
  // Nothing, in `whole` bytes with its head.
  void nothing(size_t whole) {
    constexpr size_t kHead = 1 + 8;
    id(0xec);
    size(whole - kHead);
    bytes.resize(bytes.size() + whole - kHead);
  }

  std::vector<uint8_t> bytes;
};

}  // namespace zelta::core_service::media::webm
