// SPDX-License-Identifier: Apache-2.0
// Packets in, units out. Packets are "payload @timestamp", with M for the marker and L where
// something was lost before; units are "bytes @timestamp", with K for a key and D for damaged.
// Bytes are in hexadecimal, [] around those of a NAL unit that stands behind its length.
#include "core_service/rtp/depayload/depayloader.h"

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/counted_new.h"
#include "support/hex.h"

namespace zelta::test {
namespace {

using namespace core_service;

struct row {
  const char* what;
  const char* packets;
  const char* units;
};

media::codec named(const char* name) {
  media::codec of{};
  of.name = name;
  return of;
}

void push(rtp::depayloader& to, const byte_list& payload, uint32_t timestamp,
          const std::string& flags) {
  rtp::packet one;
  one.payload = payload.data();
  one.payload_bytes = payload.size();
  one.timestamp = timestamp;
  one.marker = flags.find('M') != std::string::npos;
  to.push(one, flags.find('L') != std::string::npos);
}

void push_all(rtp::depayloader& to, const std::string& packets) {
  std::istringstream list(packets);
  for (std::string one; std::getline(list, one, ',');) {
    const size_t at = one.find('@');
    size_t digits = 0;
    const unsigned long timestamp = std::stoul(one.substr(at + 1), &digits);
    push(to, from_hex(one.substr(0, at)), static_cast<uint32_t>(timestamp),
         one.substr(at + 1 + digits));
  }
}

// Without spaces, and with its length for each "[".
std::string expected_text(const std::string& units) {
  std::string text = without_spaces(units);
  for (size_t at = text.find('['); at != std::string::npos; at = text.find('[')) {
    const size_t end = text.find(']', at);
    const uint8_t length[] = {0, 0, 0, static_cast<uint8_t>((end - at - 1) / 2)};
    text.erase(end, 1).replace(at, 1, to_hex(length, sizeof length));
  }
  return text;
}

void check(const char* codec, const std::vector<row>& rows) {
  for (const row& of : rows) {
    media::byte_pool pool;
    std::string units;
    const auto to = rtp::make_depayloader(named(codec), pool, [&](rtp::depayloaded&& unit) {
      units += (units.empty() ? "" : ",") + to_hex(unit.bytes.data(), unit.bytes.size()) + "@" +
               std::to_string(unit.timestamp) + (unit.key ? "K" : "") + (unit.damaged ? "D" : "");
    });
    push_all(*to, of.packets);
    to->finish();
    to->finish();  // nothing is left
    EXPECT_EQ(units, expected_text(of.units)) << codec << ": " << of.what;
  }
}

const std::vector<row> kH264 = {
    {"a NAL unit a packet, until the marker", "67 42 @7, 68 ce @7, 65 88 @7M, 41 9a @8M",
     "[6742] [68ce] [6588] @7K, [419a] @8"},
    {"another timestamp ends as well, and so does the stream", "65 88 @7, 41 9a @8",
     "[6588] @7K, [419a] @8"},
    {"delimiters, ends and filler are left out, SEI stays",
     "09 f0 @1, 06 05 @1, 61 9a @1, 0c ff @1, 0a @1, 0b @1M", "[0605] [619a] @1"},
    {"nothing is left of it", "09 f0 @1M, 41 9a @2M", "[419a] @2"},
    {"parameter sets and an I slice are no key", "67 42 @1, 61 88 @1M", "[6742] [6188] @1"},
    {"STAP-A", "78 0002 6742 0003 65 88 84 @1M", "[6742] [658884] @1K"},
    {"STAP-A with a length past the end", "78 0002 6742 0004 65 88 84 @1M, 41 9a @2M",
     "[6742] @1D, [419a] @2"},
    {"STAP-A with half a length", "78 0002 4101 00 @1M", "[4101] @1D"},
    {"STAP-A with nothing in a NAL unit", "78 0000 0002 4101 @1M", "[4101] @1D"},
    {"STAP-A in a STAP-A", "78 0005 78 0002 4101 0002 4102 @1M", "[4102] @1D"},
    {"FU-A, one of its fragments empty", "7c 85 88 @1, 7c 05 84 @1, 7c 05 @1, 7c 45 21 @1M",
     "[65888421] @1K"},
    {"FU-A of what is left out", "0c ff @1, 1c 8c ff @1, 1c 4c ff @1, 41 9a @1M", "[419a] @1"},
    {"FU-A without its beginning", "41 01 @1, 5c 01 02 @1L, 5c 41 03 @1, 41 04 @1M",
     "[4101] [4104] @1D"},
    {"FU-A without its middle", "5c 81 01 @1, 5c 41 03 @1LM, 41 04 @2M", "[4104] @2D"},
    {"FU-A without its end, of which the sender knows",
     "7c 85 01 @1, 7c 05 02 @1, 41 03 @1M, 41 04 @2M", "[4103] @1D, [4104] @2"},
    {"FU-A cut off by the next one", "5c 81 01 @1, 5c 81 02 @1, 5c 41 03 @1M", "[410203] @1D"},
    {"FU-A cut off by an aggregate that can't be read",
     "5c 81 01 @1, 78 @1, 5c 41 03 @1, 41 04 @1M", "[4104] @1D"},
    {"FU-A cut off by another timestamp", "41 01 @1, 5c 81 02 @1, 5c 41 03 @2M, 41 04 @3M",
     "[4101] @1D, [4104] @3D"},
    {"FU-A cut off by the end", "41 01 @1, 7c 85 02 @1", "[4101] @1D"},
    {"the lost packet had the marker: both may miss something", "41 01 @1, 41 02 @2LM, 41 03 @3M",
     "[4101] @1D, [4102] @2D, [4103] @3"},
    {"loss between whole units", "41 01 @1M, 41 03 @3LM, 41 04 @4M",
     "[4101] @1, [4103] @3D, [4104] @4"},
    {"padding alone, before which something is lost", "41 01 @1M, @1L, 41 02 @2M",
     "[4101] @1, [4102] @2D"},
    {"what nobody negotiates, and what can't be",
     "41 01 @1, 79 0001 0002 41ff @1, 7a @1, 7b @1, 7d 85 00 @1M, c1 9a @2, 41 02 @2M,"
     "7f 01 @3, 41 03 @3M, 60 01 @4M, 65 @5M, 7c @6M, 78 @7M, 41 08 @8M",
     "[4101] @1D, [4102] @2D, [4103] @3D, [4108] @8D"},
};

const std::vector<row> kHevc = {
    {"NAL units alone; delimiters, ends and filler are left out",
     "4601 50 @1, 4001 0c @1, 2601 af @1M, 0201 d0 @2, 4c01 ff @2, 4801 @2, 4a01 @2M",
     "[40010c] [2601af] @1K, [0201d0] @2"},
    {"from 16 to 21 they are key", "1e01 01 @1M, 2001 02 @2M, 2a01 03 @3M, 2c01 04 @4M",
     "[1e0101] @1, [200102] @2K, [2a0103] @3K, [2c0104] @4"},
    {"aggregation packet", "6001 0003 40010c 0004 2a01af12 @1M", "[40010c] [2a01af12] @1K"},
    {"aggregation packet with a length past the end", "6001 0003 40010c 0005 2a01af12 @1M",
     "[40010c] @1D"},
    {"fragments keep layer and temporal id", "6302 93 af @1, 6302 13 12 @1, 6302 53 34 @1M",
     "[2702af1234] @1K"},
    {"fragments without beginning, and without end",
     "6201 41 af @1L, 0201 d0 @1, 6201 81 af @1M, 0201 d1 @2M", "[0201d0] @1D, [0201d1] @2"},
    {"what can't be",
     "40 @1M, 0201 @2M, 6201 @3M, 6001 @4M, 6401 00 00 @5M, 8201 d0 @6M,"
     "6001 0001 02 0003 0201d0 @7M",
     "[0201d0] @7D"},
};

const std::vector<row> kVp8 = {
    {"bare descriptors, two partitions", "10 10 aa @1, 00 bb @1, 11 cc @1M, 10 11 dd @2M",
     "10aabbcc @1K, 11dd @2"},
    {"partitions that all are number 0", "10 11 aa @1, 10 bb @1M", "11aabb @1"},
    {"every optional field",
     "90 80 11 10 01 @1M, 90 80 91 22 10 02 @2M, 90 40 07 10 03 @3M, 90 20 80 10 04 @4M,"
     "90 10 1f 10 05 @5M, b0 f0 ff ff 09 bf 11 06 @6M, 90 00 11 07 @7M",
     "1001 @1K, 1002 @2K, 1003 @3K, 1004 @4K, 1005 @5K, 1106 @6, 1107 @7"},
    {"another timestamp ends a frame", "10 11 aa @1, 10 11 bb @2M", "11aa @1, 11bb @2"},
    {"the beginning is lost", "00 bb @1L, 00 cc @1M, 10 11 dd @2M, 10 11 ee @3M",
     "11dd @2D, 11ee @3"},
    {"it begins with another partition", "11 10 aa @1M", ""},
    {"the middle is lost", "10 10 aa @1, 00 cc @1LM, 10 11 dd @2M", "11dd @2D"},
    {"the end is lost, marker and all", "10 10 aa @1, 10 11 dd @2LM, 10 11 ee @3M",
     "11dd @2D, 11ee @3"},
    {"loss between whole frames", "10 11 aa @1M, 10 11 cc @3LM", "11aa @1, 11cc @3D"},
    {"the stream ends within a frame", "10 11 aa @1M, 10 10 bb @2", "11aa @1"},
    {"descriptors without a frame",
     "10 @1M, 90 @2M, 90 80 91 @3M, 90 f0 01 02 03 @4M, 10 11 ee @5M", "11ee @5D"},
};

const std::vector<row> kVp9 = {
    {"one layer", "08 a0 @1, 00 a1 @1, 04 a2 @1M", "a0a1a2 @1K"},
    {"every optional field; 3 and 4 have layers, 7 not the pictures that it announces",
     "8c 11 01 @1M, cc 91 22 02 @2M, ac 05 20 55 03 @3M, fc 05 21 03 05 06 04 @4M,"
     "5c 04 05 @5M, 3c 00 06 @6M, 0e 18 02 04 10 07 @7M,"
     "0e 30 0140 00b4 0280 0168 08 @8M, 0e 08 03 00 04 01 1c 01 02 03 09 @9M,"
     "0e 38 0140 00b4 0280 0168 01 08 01 02 0a @10M, 0e 00 0b @11M",
     "01 @1K, 02 @2, 03 @3K, 04 @4, 05 @5, 06 @6K, 08 @8KD, 09 @9K, 0a @10K, 0b @11K"},
    {"a picture of two spatial layers, predicted the one from the other",
     "28 00 01 a0 @1, 24 00 01 a1 @1, 2c 03 01 b0 @1M, 6c 00 02 c0 @2, 6c 03 02 d0 @2M",
     "a0a1b0 @1K, c0d0 @2"},
    {"a sender of the upper layer alone", "2c 02 01 b0 @1M, 2c 02 01 b1 @2M", "b0 @1, b1 @2"},
    {"the layer below is lost", "2c 03 01 b0 @1LM, 6c 00 02 c0 @2M", "c0 @2D"},
    {"the layer above is lost", "2c 00 01 a0 @1, 6c 00 02 c0 @2LM", "c0 @2D"},
    {"beginning, middle and end lost",
     "04 a2 @1LM, 08 a0 @2, 04 a2 @2LM, 08 a0 @3, 4c c0 @4LM, 4c d0 @5M", "c0 @4D, d0 @5"},
    {"a layer frame without its end, without its beginning",
     "08 a0 @1M, 08 a0 @2, 08 b0 @2M, 04 a0 @3M, 4c c0 @4M", "c0 @4D"},
    {"another timestamp ends a whole picture, and so does the stream", "0c a0 @1, 4c a1 @2",
     "a0 @1K, a1 @2"},
    {"the stream ends within a layer frame", "08 a0 @1", ""},
    {"descriptors without a picture, or without end",
     "0c @1M, 8c 91 @2M, 0e @3M, 0e f8 01 02 @4M, 5c 03 05 07 aa @5M, 4c c0 @6M", "c0 @6D"},
};

// OBU headers: 08 sequence header, 10 temporal delimiter, 18 frame header, 20 tile group, 30 frame,
// 2 more with a size; sizes that come out take four bytes.
const std::vector<row> kAv1 = {
    {"two elements, the last without a length; no delimiter comes out",
     "28 02 08 00 30 10 aa @1M, 10 30 30 bb @2M",
     "0a 81808000 00 32 82808000 10aa @1K, 32 82808000 30bb @2"},
    {"elements with lengths, delimiter, extension, sizes of their own",
     "00 01 10 04 0a 02 00 01 04 34 08 10 aa 05 36 08 02 10 bb @1M",
     "0a 82808000 0001 36 08 82808000 10aa 36 08 82808000 10bb @1K"},
    {"fragments down to a byte, header and own size apart",
     "50 36 @1, d0 08 @1, d0 03 @1, d0 30 aa @1, a0 01 bb 30 30 cc @1M",
     "36 08 83808000 30aabb 32 82808000 30cc @1"},
    {"a length in more bytes than it needs", "00 82 80 00 30 30 @1M", "32 81808000 30 @1"},
    {"key: the sequence header and a key frame first",
     "20 02 08 00 30 30 @1M, 10 30 10 @2M, 20 02 08 00 18 90 @3M,"
     "30 02 08 00 02 30 30 30 10 @4M, 30 02 08 00 02 18 10 20 ee @5M, 20 02 08 18 30 ff @6M",
     "0a 81808000 00 32 81808000 30 @1, 32 81808000 10 @2, 0a 81808000 00 1a 81808000 90 @3,"
     "0a 81808000 00 32 81808000 30 32 81808000 10 @4,"
     "0a 81808000 00 1a 81808000 10 22 81808000 ee @5K, 0a 81808000 18 32 81808000 ff @6K"},
    {"the beginning is lost", "90 aa @1LM, 10 20 aa @2LM, 10 30 30 @3M, 10 30 30 @4M",
     "32 81808000 30 @3D, 32 81808000 30 @4"},
    {"the middle is lost", "50 30 30 @1, 90 aa @1LM, 10 30 30 @2M", "32 81808000 30 @2D"},
    {"the end is lost, marker and all", "50 30 30 @1, 10 30 30 @2LM, 10 30 30 @3M",
     "32 81808000 30 @2D, 32 81808000 30 @3"},
    {"a fragment that nothing follows, by marker, timestamp, sender and end",
     "50 30 30 @1M, 50 30 30 @2, 50 30 30 @3, 10 30 30 @3M, 10 30 30 @4M, 50 30 30 @5",
     "32 81808000 30 @4D"},
    {"another timestamp ends a unit, and so does the stream", "10 30 30 @1, 10 30 31 @2",
     "32 81808000 30 @1, 32 81808000 31 @2"},
    {"nothing is left of it", "10 10 @1M, 10 40 @2M", ""},
    {"what can't be",
     "10 @1M, 00 03 30 30 @2M, 20 02 30 30 @3M, 00 00 @4M, 00 ff ff ff ff ff ff ff ff ff @5M,"
     "10 34 @6M, 10 32 02 30 @7M, 10 b0 30 @8M, 10 30 @9M, 10 30 30 @10M",
     "32 81808000 30 @10D"},
};

const std::vector<row> kSound = {
    {"a packet a unit, whatever the marker says", "78 01 @1M, ff @2, @3L, 7f @4, 80 @5LM",
     "7801 @1K, ff @2K, 7f @4KD, 80 @5KD"},
};

TEST(Depayload, MakesUnitsOfPackets) {
  check("h264", kH264);
  check("hevc", kHevc);
  check("vp8", kVp8);
  check("vp9", kVp9);
  check("av1", kAv1);
  for (const char* codec : {"opus", "pcmu", "pcma"}) check(codec, kSound);
}

TEST(Depayload, KnowsNoOtherCodec) {
  media::byte_pool pool;
  EXPECT_EQ(rtp::make_depayloader(named("aac"), pool, [](rtp::depayloaded&&) {}), nullptr);
}

// What each packet of a unit begins with, in hexadecimal: the first, those between, and the last.
const struct fragmented {
  const char* codec;
  const char* first;
  const char* between;
  const char* last;
  size_t overhead;  // what stands in a unit beside the content of fragments
  const char* next;
} kFragmented[] = {
    {"h264", "5c81", "5c01", "5c41", 5, "419a"},
    {"hevc", "620181", "620101", "620141", 6, "0201d0"},
    {"vp8", "10", "00", "00", 0, "1011"},
    {"vp9", "08", "00", "04", 0, "0c11"},
    {"av1", "5030", "d0", "90", 5, "103030"},
};

// Up to 32 MiB, and not a byte more: the first packet, then many, then one that fills or overfills.
TEST(Depayload, DropsWhatGrowsWithoutEnd) {
  constexpr size_t kMost = size_t{32} << 20;
  constexpr size_t kStep = size_t{1} << 20;
  for (const fragmented& of : kFragmented) {
    for (const size_t excess : {0U, 1U}) {
      SCOPED_TRACE(std::string(of.codec) + (excess > 0 ? " too large" : " just fits"));
      media::byte_pool pool;
      std::vector<std::pair<size_t, bool>> units;
      const auto to = rtp::make_depayloader(named(of.codec), pool, [&](rtp::depayloaded&& unit) {
        units.emplace_back(unit.bytes.size(), unit.damaged);
      });
      const auto add = [&](const char* descriptor, size_t bytes, const char* flags) {
        byte_list payload = from_hex(descriptor);
        payload.resize(payload.size() + bytes, 1);
        push(*to, payload, 1, flags);
      };
      add(of.first, kStep, "");
      for (size_t i = 2; i < kMost / kStep; ++i) add(of.between, kStep, "");
      add(of.last, kStep - of.overhead + excess, "M");
      push(*to, from_hex(of.next), 2, "M");
      ASSERT_EQ(units.size(), 2 - excess);
      if (excess == 0) {
        EXPECT_EQ(units[0], std::make_pair(kMost, false));
      }
      EXPECT_EQ(units.back().second, excess > 0);
    }
  }
}

// A stream that runs allocates nothing: a hundred pictures of forty packets, of which every eighth
// misses something.
TEST(Depayload, AllocatesNothingOnceWarm) {
  constexpr size_t kPackets = 40;
  std::vector<fragmented> streams(std::begin(kFragmented), std::end(kFragmented));
  streams.push_back({"opus", "78", "78", "78", 0, ""});
  for (const fragmented& of : streams) {
    SCOPED_TRACE(of.codec);
    std::vector<byte_list> packets(kPackets, from_hex(of.between));
    packets.front() = from_hex(of.first);
    packets.back() = from_hex(of.last);
    for (byte_list& packet : packets) packet.resize(1200, 1);
    media::byte_pool pool;
    size_t units = 0;
    // The one that came last is still in use while the next is built.
    rtp::depayloaded held;
    const auto to = rtp::make_depayloader(named(of.codec), pool, [&](rtp::depayloaded&& unit) {
      ++units;
      held = std::move(unit);
    });
    uint32_t timestamp = 0;
    const auto play = [&] {
      for (int i = 0; i < 100; ++i) {
        ++timestamp;
        for (size_t at = 1; at <= kPackets; ++at) {
          const bool lost = i % 8 == 7 && at == kPackets / 2;
          push(*to, packets[at - 1], timestamp, at == kPackets ? "M" : lost ? "L" : "");
        }
      }
    };
    play();
    const size_t warm = allocations();
    ASSERT_GT(warm, 0U) << "they are counted";
    const size_t before = units;
    play();
    EXPECT_EQ(allocations() - warm, 0U);
    EXPECT_GE(units - before, 80U);
  }
}

}  // namespace
}  // namespace zelta::test
