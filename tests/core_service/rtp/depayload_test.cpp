// SPDX-License-Identifier: Apache-2.0
// Packets in, units out. Bytes are in hexadecimal, spaces where the reader needs them.
#include "core_service/rtp/depayload/depayloader.h"

#include <algorithm>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

using namespace core_service;

struct sent {
  std::string payload;
  uint32_t timestamp;
  std::string flags{};  // M: marker, L: lost before it
};

struct got {
  std::string bytes;
  uint32_t timestamp;
  std::string flags{};  // K: key, D: damaged

  bool operator==(const got& other) const {
    return bytes == other.bytes && timestamp == other.timestamp && flags == other.flags;
  }
};

std::ostream& operator<<(std::ostream& out, const got& one) {
  return out << one.bytes << " at " << one.timestamp << " " << one.flags;
}

struct row {
  const char* what;
  std::vector<sent> packets;
  std::vector<got> units;
};

std::string without_spaces(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  return text;
}

std::vector<uint8_t> bytes_of(const std::string& text) {
  const std::string digits = without_spaces(text);
  std::vector<uint8_t> bytes;
  for (size_t at = 0; at < digits.size(); at += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

std::string text_of(const media::shared_bytes& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t at = 0; at < bytes.size(); ++at) {
    text += kDigits[bytes.data()[at] >> 4U];
    text += kDigits[bytes.data()[at] & 15U];
  }
  return text;
}

media::codec named(const char* name) {
  media::codec of{};
  of.name = name;
  return of;
}

void push(rtp::depayloader& to, const std::vector<uint8_t>& payload, uint32_t timestamp,
          const std::string& flags) {
  rtp::packet one;
  one.payload = payload.data();
  one.payload_bytes = payload.size();
  one.timestamp = timestamp;
  one.marker = flags.find('M') != std::string::npos;
  to.push(one, flags.find('L') != std::string::npos);
}

void check(const char* codec, const std::vector<row>& rows) {
  for (const row& of : rows) {
    SCOPED_TRACE(of.what);
    media::byte_pool pool;
    std::vector<got> units;
    const auto to = rtp::make_depayloader(named(codec), pool, [&](rtp::depayloaded&& unit) {
      units.push_back({text_of(unit.bytes), unit.timestamp,
                       std::string(unit.key ? "K" : "") + (unit.damaged ? "D" : "")});
    });
    for (const sent& one : of.packets) {
      push(*to, bytes_of(one.payload), one.timestamp, one.flags);
    }
    to->finish();
    to->finish();  // nothing is left
    std::vector<got> expected = of.units;
    for (got& unit : expected) unit.bytes = without_spaces(unit.bytes);
    EXPECT_EQ(units, expected);
  }
}

TEST(Depayload, H264) {
  check(
      "h264",
      {
          {"a NAL unit a packet, until the marker",
           {{"67 42", 7}, {"68 ce", 7}, {"65 88", 7, "M"}, {"41 9a", 8, "M"}},
           {{"00000002 6742 00000002 68ce 00000002 6588", 7, "K"}, {"00000002 419a", 8}}},
          {"another timestamp ends as well, and so does the stream",
           {{"65 88", 7}, {"41 9a", 8}},
           {{"00000002 6588", 7, "K"}, {"00000002 419a", 8}}},
          {"delimiters, ends and filler are left out, SEI stays",
           {{"09 f0", 1}, {"06 05", 1}, {"61 9a", 1}, {"0c ff", 1}, {"0a", 1}, {"0b", 1, "M"}},
           {{"00000002 0605 00000002 619a", 1}}},
          {"nothing is left of it", {{"09 f0", 1, "M"}, {"41 9a", 2, "M"}}, {{"00000002 419a", 2}}},
          {"parameter sets and an I slice are no key",
           {{"67 42", 1}, {"61 88", 1, "M"}},
           {{"00000002 6742 00000002 6188", 1}}},
          {"STAP-A",
           {{"78 0002 6742 0003 65 88 84", 1, "M"}},
           {{"00000002 6742 00000003 658884", 1, "K"}}},
          {"STAP-A with a length past the end",
           {{"78 0002 6742 0004 65 88 84", 1, "M"}, {"41 9a", 2, "M"}},
           {{"00000002 6742", 1, "D"}, {"00000002 419a", 2}}},
          {"STAP-A with half a length", {{"78 0002 4101 00", 1, "M"}}, {{"00000002 4101", 1, "D"}}},
          {"STAP-A with nothing in a NAL unit",
           {{"78 0000 0002 4101", 1, "M"}},
           {{"00000002 4101", 1, "D"}}},
          {"STAP-A in a STAP-A",
           {{"78 0005 78 0002 4101 0002 4102", 1, "M"}},
           {{"00000002 4102", 1, "D"}}},
          {"FU-A, one of its fragments empty",
           {{"7c 85 88", 1}, {"7c 05 84", 1}, {"7c 05", 1}, {"7c 45 21", 1, "M"}},
           {{"00000004 65888421", 1, "K"}}},
          {"FU-A of what is left out",
           {{"0c ff", 1}, {"1c 8c ff", 1}, {"1c 4c ff", 1}, {"41 9a", 1, "M"}},
           {{"00000002 419a", 1}}},
          {"FU-A without its beginning",
           {{"41 01", 1}, {"5c 01 02", 1, "L"}, {"5c 41 03", 1}, {"41 04", 1, "M"}},
           {{"00000002 4101 00000002 4104", 1, "D"}}},
          {"FU-A without its middle",
           {{"5c 81 01", 1}, {"5c 41 03", 1, "LM"}, {"41 04", 2, "M"}},
           {{"00000002 4104", 2, "D"}}},
          {"FU-A without its end, of which the sender knows",
           {{"7c 85 01", 1}, {"7c 05 02", 1}, {"41 03", 1, "M"}, {"41 04", 2, "M"}},
           {{"00000002 4103", 1, "D"}, {"00000002 4104", 2}}},
          {"FU-A cut off by the next one",
           {{"5c 81 01", 1}, {"5c 81 02", 1}, {"5c 41 03", 1, "M"}},
           {{"00000003 410203", 1, "D"}}},
          {"FU-A cut off by an aggregate that can't be read",
           {{"5c 81 01", 1}, {"78", 1}, {"5c 41 03", 1}, {"41 04", 1, "M"}},
           {{"00000002 4104", 1, "D"}}},
          {"FU-A cut off by another timestamp",
           {{"41 01", 1}, {"5c 81 02", 1}, {"5c 41 03", 2, "M"}, {"41 04", 3, "M"}},
           {{"00000002 4101", 1, "D"}, {"00000002 4104", 3, "D"}}},
          {"FU-A cut off by the end", {{"41 01", 1}, {"7c 85 02", 1}}, {{"00000002 4101", 1, "D"}}},
          {"the lost packet had the marker: both may miss something",
           {{"41 01", 1}, {"41 02", 2, "LM"}, {"41 03", 3, "M"}},
           {{"00000002 4101", 1, "D"}, {"00000002 4102", 2, "D"}, {"00000002 4103", 3}}},
          {"loss between whole units",
           {{"41 01", 1, "M"}, {"41 03", 3, "LM"}, {"41 04", 4, "M"}},
           {{"00000002 4101", 1}, {"00000002 4103", 3, "D"}, {"00000002 4104", 4}}},
          {"padding alone, before which something is lost",
           {{"41 01", 1, "M"}, {"", 1, "L"}, {"41 02", 2, "M"}},
           {{"00000002 4101", 1}, {"00000002 4102", 2, "D"}}},
          {"what nobody negotiates, and what can't be",
           {{"41 01", 1},
            {"79 0001 0002 41ff", 1},
            {"7a", 1},
            {"7b", 1},
            {"7d 85 00", 1, "M"},
            {"c1 9a", 2},
            {"41 02", 2, "M"},
            {"7f 01", 3},
            {"41 03", 3, "M"},
            {"60 01", 4, "M"},
            {"65", 5, "M"},
            {"7c", 6, "M"},
            {"78", 7, "M"},
            {"41 08", 8, "M"}},
           {{"00000002 4101", 1, "D"},
            {"00000002 4102", 2, "D"},
            {"00000002 4103", 3, "D"},
            {"00000002 4108", 8, "D"}}},
      });
}

TEST(Depayload, Hevc) {
  check("hevc",
        {
            {"NAL units alone; delimiters, ends and filler are left out",
             {{"4601 50", 1},
              {"4001 0c", 1},
              {"2601 af", 1, "M"},
              {"0201 d0", 2},
              {"4c01 ff", 2},
              {"4801", 2},
              {"4a01", 2, "M"}},
             {{"00000003 40010c 00000003 2601af", 1, "K"}, {"00000003 0201d0", 2}}},
            {"from 16 to 21 they are key",
             {{"1e01 01", 1, "M"}, {"2001 02", 2, "M"}, {"2a01 03", 3, "M"}, {"2c01 04", 4, "M"}},
             {{"00000003 1e0101", 1},
              {"00000003 200102", 2, "K"},
              {"00000003 2a0103", 3, "K"},
              {"00000003 2c0104", 4}}},
            {"aggregation packet",
             {{"6001 0003 40010c 0004 2a01af12", 1, "M"}},
             {{"00000003 40010c 00000004 2a01af12", 1, "K"}}},
            {"aggregation packet with a length past the end",
             {{"6001 0003 40010c 0005 2a01af12", 1, "M"}},
             {{"00000003 40010c", 1, "D"}}},
            {"fragments keep layer and temporal id",
             {{"6302 93 af", 1}, {"6302 13 12", 1}, {"6302 53 34", 1, "M"}},
             {{"00000005 2702 af1234", 1, "K"}}},
            {"fragments without beginning, and without end",
             {{"6201 41 af", 1, "L"}, {"0201 d0", 1}, {"6201 81 af", 1, "M"}, {"0201 d1", 2, "M"}},
             {{"00000003 0201d0", 1, "D"}, {"00000003 0201d1", 2}}},
            {"what can't be",
             {{"40", 1, "M"},
              {"0201", 2, "M"},
              {"6201", 3, "M"},
              {"6001", 4, "M"},
              {"6401 00 00", 5, "M"},
              {"8201 d0", 6, "M"},
              {"6001 0001 02 0003 0201d0", 7, "M"}},
             {{"00000003 0201d0", 7, "D"}}},
        });
}

TEST(Depayload, Vp8) {
  check("vp8",
        {
            {"bare descriptors, two partitions",
             {{"10 10 aa", 1}, {"00 bb", 1}, {"11 cc", 1, "M"}, {"10 11 dd", 2, "M"}},
             {{"10aabbcc", 1, "K"}, {"11dd", 2}}},
            {"partitions that all are number 0",
             {{"10 11 aa", 1}, {"10 bb", 1, "M"}},
             {{"11aabb", 1}}},
            {"every optional field",
             {{"90 80 11 10 01", 1, "M"},
              {"90 80 91 22 10 02", 2, "M"},
              {"90 40 07 10 03", 3, "M"},
              {"90 20 80 10 04", 4, "M"},
              {"90 10 1f 10 05", 5, "M"},
              {"b0 f0 ff ff 09 bf 11 06", 6, "M"},
              {"90 00 11 07", 7, "M"}},
             {{"1001", 1, "K"},
              {"1002", 2, "K"},
              {"1003", 3, "K"},
              {"1004", 4, "K"},
              {"1005", 5, "K"},
              {"1106", 6},
              {"1107", 7}}},
            {"another timestamp ends a frame",
             {{"10 11 aa", 1}, {"10 11 bb", 2, "M"}},
             {{"11aa", 1}, {"11bb", 2}}},
            {"the beginning is lost",
             {{"00 bb", 1, "L"}, {"00 cc", 1, "M"}, {"10 11 dd", 2, "M"}, {"10 11 ee", 3, "M"}},
             {{"11dd", 2, "D"}, {"11ee", 3}}},
            {"it begins with another partition", {{"11 10 aa", 1, "M"}}, {}},
            {"the middle is lost",
             {{"10 10 aa", 1}, {"00 cc", 1, "LM"}, {"10 11 dd", 2, "M"}},
             {{"11dd", 2, "D"}}},
            {"the end is lost, marker and all",
             {{"10 10 aa", 1}, {"10 11 dd", 2, "LM"}, {"10 11 ee", 3, "M"}},
             {{"11dd", 2, "D"}, {"11ee", 3}}},
            {"loss between whole frames",
             {{"10 11 aa", 1, "M"}, {"10 11 cc", 3, "LM"}},
             {{"11aa", 1}, {"11cc", 3, "D"}}},
            {"the stream ends within a frame",
             {{"10 11 aa", 1, "M"}, {"10 10 bb", 2}},
             {{"11aa", 1}}},
            {"descriptors without a frame",
             {{"10", 1, "M"},
              {"90", 2, "M"},
              {"90 80 91", 3, "M"},
              {"90 f0 01 02 03", 4, "M"},
              {"10 11 ee", 5, "M"}},
             {{"11ee", 5, "D"}}},
        });
}

TEST(Depayload, Vp9) {
  check("vp9",
        {
            {"one layer", {{"08 a0", 1}, {"00 a1", 1}, {"04 a2", 1, "M"}}, {{"a0a1a2", 1, "K"}}},
            {"every optional field",
             {{"8c 11 01", 1, "M"},
              {"cc 91 22 02", 2, "M"},
              {"ac 05 20 55 03", 3, "M"},        // layers, not flexible
              {"fc 05 21 03 05 06 04", 4, "M"},  // layers, three references
              {"5c 04 05", 5, "M"},
              {"3c 00 06", 6, "M"},
              {"0e 18 02 04 10 07", 7, "M"},  // without the pictures it announces
              {"0e 30 0140 00b4 0280 0168 08", 8, "M"},
              {"0e 08 03 00 04 01 1c 01 02 03 09", 9, "M"},
              {"0e 38 0140 00b4 0280 0168 01 08 01 02 0a", 10, "M"},
              {"0e 00 0b", 11, "M"}},
             {{"01", 1, "K"},
              {"02", 2},
              {"03", 3, "K"},
              {"04", 4},
              {"05", 5},
              {"06", 6, "K"},
              {"08", 8, "KD"},
              {"09", 9, "K"},
              {"0a", 10, "K"},
              {"0b", 11, "K"}}},
            {"a picture of two spatial layers, predicted the one from the other",
             {{"28 00 01 a0", 1},
              {"24 00 01 a1", 1},
              {"2c 03 01 b0", 1, "M"},
              {"6c 00 02 c0", 2},
              {"6c 03 02 d0", 2, "M"}},
             {{"a0a1b0", 1, "K"}, {"c0d0", 2}}},
            {"a sender of the upper layer alone",
             {{"2c 02 01 b0", 1, "M"}, {"2c 02 01 b1", 2, "M"}},
             {{"b0", 1}, {"b1", 2}}},
            {"the layer below is lost",
             {{"2c 03 01 b0", 1, "LM"}, {"6c 00 02 c0", 2, "M"}},
             {{"c0", 2, "D"}}},
            {"the layer above is lost",
             {{"2c 00 01 a0", 1}, {"6c 00 02 c0", 2, "LM"}},
             {{"c0", 2, "D"}}},
            {"beginning, middle and end lost",
             {{"04 a2", 1, "LM"},
              {"08 a0", 2},
              {"04 a2", 2, "LM"},
              {"08 a0", 3},
              {"4c c0", 4, "LM"},
              {"4c d0", 5, "M"}},
             {{"c0", 4, "D"}, {"d0", 5}}},
            {"a layer frame without its end, without its beginning",
             {{"08 a0", 1, "M"},
              {"08 a0", 2},
              {"08 b0", 2, "M"},
              {"04 a0", 3, "M"},
              {"4c c0", 4, "M"}},
             {{"c0", 4, "D"}}},
            {"another timestamp ends a whole picture, and so does the stream",
             {{"0c a0", 1}, {"4c a1", 2}},
             {{"a0", 1, "K"}, {"a1", 2}}},
            {"the stream ends within a layer frame", {{"08 a0", 1}}, {}},
            {"descriptors without a picture, or without end",
             {{"0c", 1, "M"},
              {"8c 91", 2, "M"},
              {"0e", 3, "M"},
              {"0e f8 01 02", 4, "M"},
              {"5c 03 05 07 aa", 5, "M"},
              {"4c c0", 6, "M"}},
             {{"c0", 6, "D"}}},
        });
}

// OBU headers: 08 sequence header, 10 temporal delimiter, 18 frame header, 20 tile group, 30 frame,
// 2 more with a size; sizes that come out take four bytes.
TEST(Depayload, Av1) {
  check(
      "av1",
      {
          {"two elements, the last without a length; no delimiter comes out",
           {{"28 02 08 00 30 10 aa", 1, "M"}, {"10 30 30 bb", 2, "M"}},
           {{"0a 81808000 00 32 82808000 10aa", 1, "K"}, {"32 82808000 30bb", 2}}},
          {"elements with lengths, delimiter, extension, sizes of their own",
           {{"00 01 10 04 0a 02 00 01 04 34 08 10 aa 05 36 08 02 10 bb", 1, "M"}},
           {{"0a 82808000 0001 36 08 82808000 10aa 36 08 82808000 10bb", 1, "K"}}},
          {"fragments down to a byte, header and own size apart",
           {{"50 36", 1},
            {"d0 08", 1},
            {"d0 03", 1},
            {"d0 30 aa", 1},
            {"a0 01 bb 30 30 cc", 1, "M"}},
           {{"36 08 83808000 30aabb 32 82808000 30cc", 1}}},
          {"a length in more bytes than it needs",
           {{"00 82 80 00 30 30", 1, "M"}},
           {{"32 81808000 30", 1}}},
          {"key: the sequence header and a key frame first",
           {{"20 02 08 00 30 30", 1, "M"},
            {"10 30 10", 2, "M"},
            {"20 02 08 00 18 90", 3, "M"},
            {"30 02 08 00 02 30 30 30 10", 4, "M"},
            {"30 02 08 00 02 18 10 20 ee", 5, "M"},
            {"20 02 08 18 30 ff", 6, "M"}},
           {{"0a 81808000 00 32 81808000 30", 1},
            {"32 81808000 10", 2},
            {"0a 81808000 00 1a 81808000 90", 3},
            {"0a 81808000 00 32 81808000 30 32 81808000 10", 4},
            {"0a 81808000 00 1a 81808000 10 22 81808000 ee", 5, "K"},
            {"0a 81808000 18 32 81808000 ff", 6, "K"}}},
          {"the beginning is lost",
           {{"90 aa", 1, "LM"}, {"10 20 aa", 2, "LM"}, {"10 30 30", 3, "M"}, {"10 30 30", 4, "M"}},
           {{"32 81808000 30", 3, "D"}, {"32 81808000 30", 4}}},
          {"the middle is lost",
           {{"50 30 30", 1}, {"90 aa", 1, "LM"}, {"10 30 30", 2, "M"}},
           {{"32 81808000 30", 2, "D"}}},
          {"the end is lost, marker and all",
           {{"50 30 30", 1}, {"10 30 30", 2, "LM"}, {"10 30 30", 3, "M"}},
           {{"32 81808000 30", 2, "D"}, {"32 81808000 30", 3}}},
          {"a fragment that nothing follows, by marker, timestamp, sender and end",
           {{"50 30 30", 1, "M"},
            {"50 30 30", 2},
            {"50 30 30", 3},
            {"10 30 30", 3, "M"},
            {"10 30 30", 4, "M"},
            {"50 30 30", 5}},
           {{"32 81808000 30", 4, "D"}}},
          {"another timestamp ends a unit, and so does the stream",
           {{"10 30 30", 1}, {"10 30 31", 2}},
           {{"32 81808000 30", 1}, {"32 81808000 31", 2}}},
          {"nothing is left of it", {{"10 10", 1, "M"}, {"10 40", 2, "M"}}, {}},
          {"what can't be",
           {{"10", 1, "M"},
            {"00 03 30 30", 2, "M"},
            {"20 02 30 30", 3, "M"},
            {"00 00", 4, "M"},
            {"00 ff ff ff ff ff ff ff ff ff", 5, "M"},
            {"10 34", 6, "M"},
            {"10 32 02 30", 7, "M"},
            {"10 b0 30", 8, "M"},
            {"10 30", 9, "M"},
            {"10 30 30", 10, "M"}},
           {{"32 81808000 30", 10, "D"}}},
      });
}

TEST(Depayload, Sound) {
  for (const char* codec : {"opus", "pcmu", "pcma"}) {
    check(codec, {{"a packet a unit, whatever the marker says",
                   {{"78 01", 1, "M"}, {"ff", 2}, {"", 3, "L"}, {"7f", 4}, {"80", 5, "LM"}},
                   {{"7801", 1, "K"}, {"ff", 2, "K"}, {"7f", 4, "KD"}, {"80", 5, "KD"}}}});
  }
}

TEST(Depayload, KnowsNoOtherCodec) {
  media::byte_pool pool;
  EXPECT_EQ(rtp::make_depayloader(named("aac"), pool, [](rtp::depayloaded&&) {}), nullptr);
}

// Up to 32 MiB, and not a byte more: the first packet, then many, then one that fills or overfills.
TEST(Depayload, DropsWhatGrowsWithoutEnd) {
  constexpr size_t kMost = size_t{32} << 20;
  constexpr size_t kStep = size_t{1} << 20;
  const struct {
    const char* codec;
    const char* begin;
    const char* more;
    const char* end;
    size_t overhead;  // what stands in a unit beside the content of fragments
    const char* next;
  } rows[] = {
      {"h264", "5c81", "5c01", "5c41", 5, "419a"},
      {"hevc", "620181", "620101", "620141", 6, "0201d0"},
      {"vp8", "10", "00", "00", 0, "1011"},
      {"vp9", "08", "00", "04", 0, "0c11"},
      {"av1", "5030", "d0", "90", 5, "103030"},
  };
  for (const auto& of : rows) {
    for (const size_t excess : {0, 1}) {
      SCOPED_TRACE(std::string(of.codec) + (excess > 0 ? " too large" : " just fits"));
      media::byte_pool pool;
      std::vector<std::pair<size_t, bool>> units;
      const auto to = rtp::make_depayloader(named(of.codec), pool, [&](rtp::depayloaded&& unit) {
        units.emplace_back(unit.bytes.size(), unit.damaged);
      });
      const auto add = [&](const char* descriptor, size_t bytes, const char* flags) {
        std::vector<uint8_t> payload = bytes_of(descriptor);
        payload.resize(payload.size() + bytes, 1);
        push(*to, payload, 1, flags);
      };
      add(of.begin, kStep, "");
      for (size_t i = 2; i < kMost / kStep; ++i) add(of.more, kStep, "");
      add(of.end, kStep - of.overhead + excess, "M");
      push(*to, bytes_of(of.next), 2, "M");
      ASSERT_EQ(units.size(), 2 - excess);
      if (excess == 0) {
        EXPECT_EQ(units[0], std::make_pair(kMost, false));
      }
      EXPECT_EQ(units.back().second, excess > 0);
    }
  }
}

}  // namespace
}  // namespace zelta::test
