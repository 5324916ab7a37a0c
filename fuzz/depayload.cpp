// SPDX-License-Identifier: Apache-2.0
// RTP payloads from the network, to each format in turn. An input is a list of packets: a byte of
// flags (1: marker, 2: lost before it, 4: another timestamp), the payload's length, the payload.
#include <algorithm>
#include <cstring>

#include "core_service/rtp/depayload/byte_reader.h"
#include "core_service/rtp/depayload/depayloader.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service;

std::string list_of(const std::vector<std::string>& payloads, unsigned flags_of_last) {
  std::string all;
  for (const std::string& one : payloads) {
    const unsigned flags = &one == &payloads.back() ? flags_of_last : 0U;
    all += static_cast<char>(flags);
    all += static_cast<char>(one.size());
    all += one;
  }
  return all;
}

void check_nal_units(const media::shared_bytes& unit) {
  rtp::byte_reader in(unit.data(), unit.size());
  while (in.left() > 0) {
    const size_t high = in.big_endian16();
    const size_t bytes = high << 16U | in.big_endian16();
    require(in.take(bytes) != nullptr && bytes > 1, "a NAL unit's length that leads elsewhere");
  }
}

void check_obus(const media::shared_bytes& unit) {
  rtp::byte_reader in(unit.data(), unit.size());
  while (in.left() > 0) {
    const unsigned header = in.byte();
    require((header & 0x82U) == 0x02U, "an OBU without its size");
    require((header >> 3U & 0x0fU) != 2, "a temporal delimiter");
    if ((header & 0x04U) != 0) in.byte();
    in.take(in.leb128());
    require(in.ok(), "an OBU's size that leads elsewhere");
  }
}

void check_nothing(const media::shared_bytes& /*unit*/) {}

struct format {
  const char* name;
  void (*check)(const media::shared_bytes&);
  bool sound;
  std::vector<uint8_t> whole;  // one packet that is a unit
};

const std::vector<format>& formats() {
  static const std::vector<format> kFormats{
      {"h264", check_nal_units, false, {0x41, 0x9a}},
      {"hevc", check_nal_units, false, {0x02, 0x01, 0xd0}},
      {"vp8", check_nothing, false, {0x10, 0x11}},
      {"vp9", check_nothing, false, {0x0c, 0x11}},
      {"av1", check_obus, false, {0x10, 0x30, 0x30}},
      {"opus", check_nothing, true, {0x78}},
      {"pcmu", check_nothing, true, {0xff}},
  };
  return kFormats;
}

void run(const format& of, const uint8_t* data, size_t size) {
  static media::byte_pool pool;
  media::codec kind{};
  kind.name = of.name;
  size_t units = 0;
  size_t packets = 0;
  bool any_lost = false;
  bool damaged = false;
  const auto to = rtp::make_depayloader(kind, pool, [&](rtp::depayloaded&& unit) {
    require(!unit.bytes.empty(), "a unit of nothing");
    require(!of.sound || unit.key, "sound that isn't key");
    of.check(unit.bytes);
    damaged = unit.damaged;
    ++units;
  });
  rtp::packet one;
  for (rtp::byte_reader in(data, size); in.left() >= 2; ++packets) {
    const unsigned flags = in.byte();
    const size_t said = in.byte();
    const size_t bytes = std::min(said, in.left());
    // Memory of its own, so that a read past the end is found.
    std::vector<uint8_t> payload(bytes);
    if (bytes > 0) std::memcpy(payload.data(), in.take(bytes), bytes);
    one.payload = payload.data();
    one.payload_bytes = bytes;
    one.marker = (flags & 1U) != 0;
    one.timestamp += (flags & 4U) != 0 ? 1 : 0;
    any_lost = any_lost || (flags & 2U) != 0;
    to->push(one, (flags & 2U) != 0);
  }
  to->finish();
  require(units <= packets, "more units than packets");
  require(!of.sound || any_lost || !damaged, "damage that nobody did");

  // Whatever came before, what is whole comes out, and tells of no damage but once.
  for (const bool again : {false, true}) {
    const size_t before = units;
    one.payload = of.whole.data();
    one.payload_bytes = of.whole.size();
    one.marker = true;
    ++one.timestamp;
    to->push(one, false);
    require(units == before + 1, "a whole unit that doesn't come out");
    require(!again || !damaged, "damage without end");
  }
}

}  // namespace

std::vector<std::string> seeds() {
  using namespace std::string_literals;
  const auto next = [](const std::vector<std::string>& first,
                       const std::vector<std::string>& second) {
    return list_of(first, 1) + list_of(second, 4) + list_of(first, 2) + list_of(second, 7);
  };
  return {
      next({"\x09\xf0"s, "\x78\x00\x02\x67\x42\x00\x02\x68\xce"s, "\x7c\x85\x88"s, "\x7c\x05\x84"s,
            "\x7c\x45\x21"s},
           {"\x41\x9a\x01"s}),
      next({"\x60\x01\x00\x03\x40\x01\x0c\x00\x03\x42\x01\x01"s, "\x62\x01\x93\xaf"s,
            "\x62\x01\x13\x12"s, "\x62\x01\x53\x34"s},
           {"\x02\x01\xd0"s}),
      next({"\xb0\xf0\xff\xff\x09\xbf\x10\x06"s, "\x80\x80\x11\xbb"s}, {"\x10\x11\xcc"s}),
      next({"\xbe\x91\x22\x00\x01\x38\x01\x40\x00\xb4\x02\x80\x01\x68\x01\x08\x01\x02\x0a"s,
            "\xf8\x05\x21\x03\x05\x06\x04"s, "\xf4\x05\x21\x02\x04"s},
           {"\x4c\xc0"s}),
      next({"\x20\x02\x08\x00\x30\x10\xaa"s, "\x50\x36"s, "\xd0\x08"s, "\xd0\x03\x30"s,
            "\xa0\x02\xbb\xcc\x30\x30"s},
           {"\x00\x01\x10\x04\x0a\x02\x00\x01\x03\x30\x10\xaa"s}),
      next({"\x78\x01"s}, {"\xff"s}),
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (const auto& of : zelta::fuzz::formats()) zelta::fuzz::run(of, data, size);
  return 0;
}
