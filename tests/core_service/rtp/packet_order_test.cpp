// SPDX-License-Identifier: Apache-2.0
// From datagrams to packets in order: what is taken for RTP, for a stream, for late and for lost.
#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/rtp/packet.h"
#include "core_service/rtp/reorder_buffer.h"
#include "core_service/rtp/source_validator.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::rtp;
using core_service::media::media_time;

const uint8_t* bytes_of(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

std::optional<packet> parsed(const std::string& text) {
  // Of its own, so that a read past the end is one past the memory.
  const std::vector<uint8_t> bytes(text.begin(), text.end());
  std::optional<packet> one = parse_packet(bytes.data(), bytes.size());
  if (one) one->payload = bytes_of(text) + (one->payload - bytes.data());
  if (one && one->extension != nullptr) {
    one->extension = bytes_of(text) + (one->extension - bytes.data());
  }
  return one;
}

const std::string kFixed("\xe0\x12\x34\x01\x02\x03\x04\x0a\x0b\x0c\x0d", 11);  // all but a byte

TEST(PacketTest, FieldsAreReadAndLengthsThatLeadPastTheEndRefused) {
  const std::tuple<const char*, std::string, std::optional<std::string>> rows[] = {
      {"nothing", "", {}},
      {"eleven bytes", "\x80" + kFixed.substr(0, 10), {}},
      {"a header", "\x80" + kFixed, ""},
      {"version 1", "\x40" + kFixed + "abc", {}},
      {"payload", "\x80" + kFixed + "abc", "abc"},
      {"a contributor", "\x81" + kFixed + "CSRCabc", "abc"},
      {"fifteen, one too many", "\x8f" + kFixed + std::string(59, 'c'), {}},
      {"padding", "\xa0" + kFixed + std::string("abc\0\0\3", 6), "abc"},
      {"nothing but padding", "\xa0" + kFixed + std::string("\0\0\0\4", 4), ""},
      {"padding over the header", "\xa0" + kFixed + std::string("\0\0\0\5", 4), {}},
      {"padding of no length", "\xa0" + kFixed + std::string("abc\0", 4), {}},
      {"extension", "\x90" + kFixed + std::string("\xbe\xde\0\1EXTNabc", 11), "abc"},
      {"extension past the end", "\x90" + kFixed + std::string("\xbe\xde\0\2EXTNabc", 11), {}},
      {"half an extension's header", "\x90" + kFixed + "\xbe\xde", {}},
  };
  for (const auto& [what, bytes, payload] : rows) {
    const auto got = parsed(bytes);
    ASSERT_EQ(got.has_value(), payload.has_value()) << what;
    if (!got) continue;
    EXPECT_EQ(std::string(got->payload, got->payload + got->payload_bytes), *payload) << what;
    EXPECT_EQ(std::tuple(got->marker, got->payload_type, got->sequence, got->timestamp, got->ssrc),
              std::tuple(true, 0x60, 0x1234, 0x01020304U, 0x0a0b0c0dU));
    if (what != std::string("extension")) continue;
    EXPECT_EQ(got->extension_profile, 0xbede);
    EXPECT_EQ(std::string(got->extension, got->extension + got->extension_bytes), "EXTN");
  }
}

TEST(PacketTest, LevelsOfSoundAreFoundAmongTheExtensions) {
  constexpr int kNone = -1;
  // The profile, the elements, and the level under number 3.
  const std::tuple<const char*, std::string, int> rows[] = {
      {"\xbe\xde", std::string("\x30\xaa\0\0", 4), 0x2a},
      {"\xbe\xde", std::string("\0\x22xxx\x30\x7f\0", 8), 0x7f},
      {"\xbe\xde", std::string("\x20\xaa\0\0", 4), kNone},
      {"\xbe\xde", std::string("\xf0\xaa\x30\x2a", 4), kNone},
      {"\xbe\xde", std::string("\x23xx\x30", 4), kNone},
      {"\xbe\xde", std::string("\0\0\0\x30", 4), kNone},
      {"\x10\x05", std::string("\3\1\xaa\0", 4), 0x2a},
      {"\x10\0", std::string("\2\0\3\1\x2a\0\0\0", 8), 0x2a},
      {"\x10\0", std::string("\3\0\0\0", 4), kNone},
      {"\x10\0", std::string("\2\1x\3", 4), kNone},
      {"\x20\0", std::string("\x30\x2a\0\0", 4), kNone},
  };
  for (const auto& [profile, elements, level] : rows) {
    const auto words = static_cast<char>(elements.size() / 4);
    std::string bytes = "\x90" + kFixed;
    bytes.append(profile, 2).append({'\0', words}).append(elements);
    const auto got = parsed(bytes);
    ASSERT_TRUE(got) << elements;
    const auto found = audio_level_of(*got, 3);
    EXPECT_EQ(found ? int{*found} : kNone, level) << elements;
  }
}

TEST(PacketTest, NumbersAndNamesAreFoundAmongTheExtensions) {
  constexpr int kNone = -1;
  // The profile, the elements, and under number 3 the transport's number and the name.
  const std::tuple<const char*, std::string, int, std::string> rows[] = {
      {"\xbe\xde", std::string("\x31\x12\x34\0", 4), 0x1234, "\x12\x34"},
      {"\xbe\xde", std::string("\x20x\x33high\0", 8), kNone, "high"},
      {"\xbe\xde", std::string("\x30x\x31yz\0\0\0", 8), kNone, "x"},
      {"\xbe\xde", std::string("\1xx\x31hi\0\0", 8), 0x6869, "hi"},
      {"\xbe\xde", std::string("\x33hig", 4), kNone, ""},
      {"\x10\0", std::string("\3\x13longer than sixteen\0\0\0", 24), kNone, "longer than sixteen"},
      {"\x10\0", std::string("\3\0\3\2hi\0\0", 8), kNone, ""},
      {"\x10\0", std::string("\3\3hi", 4), kNone, ""},
  };
  for (const auto& [profile, elements, transport, name] : rows) {
    const auto words = static_cast<char>(elements.size() / 4);
    std::string bytes = "\x90" + kFixed;
    bytes.append(profile, 2).append({'\0', words}).append(elements);
    const auto got = parsed(bytes);
    ASSERT_TRUE(got) << elements;
    const auto found = transport_number_of(*got, 3);
    EXPECT_EQ(found ? int{*found} : kNone, transport) << elements;
    EXPECT_EQ(text_extension_of(*got, 3), name) << elements;
    EXPECT_FALSE(find_extension(*got, 0)) << "it is that of padding";
  }
}

// A packet's number, what is made of it, and its number in the stream.
TEST(SourceValidatorTest, StreamsAreToldFromStrayPackets) {
  const std::string marks = "?=x!";  // probation, valid, drop, restarted
  const char* const rows[] = {
      "7?7 8=8 8=8 3007=3007 2908=2908",
      "7?7 9?9 10=10 8=8",
      "7?7 7?7 8=8",
      // Wraps in both directions, at the very beginning as well.
      "65535?65535 0=65536 65534=65534 1=65537",
      "0?0 1=1 65535=-1",
      // A dropout, and a misorder, of one too many.
      "7?7 8=8 3008x134080 9=9 3009x134081",
      "207?207 208=208 108x131180 109=109",
      // A stray packet in between counts for nothing, two stray ones for nothing either.
      "7?7 8=8 40000x171072 9=9 40001x171073 50000x181072 40002x171074 40003!171075",
      "7?7 40000?171072 40001=171073",
  };
  for (const std::string row : rows) {
    source_validator validator;
    std::string said;
    std::istringstream steps(row);
    for (std::string step; steps >> step;) {
      const int sequence = std::stoi(step);
      const auto got = validator.check(static_cast<uint16_t>(sequence));
      said += (said.empty() ? "" : " ") + std::to_string(sequence) +
              marks.at(static_cast<size_t>(got.is)) + std::to_string(got.sequence);
    }
    EXPECT_EQ(said, row);
  }
}

TEST(SourceValidatorTest, WhatHadToWaitBelongsToTheStreamThatItIsFollowedBy) {
  source_validator validator;
  for (const int sequence : {7, 9, 10}) validator.check(static_cast<uint16_t>(sequence));
  EXPECT_TRUE(validator.belongs(7));
  EXPECT_TRUE(validator.belongs(9));
  const int64_t stray = validator.check(40000).sequence;
  ASSERT_EQ(validator.check(11).is, verdict::kValid);
  EXPECT_FALSE(validator.belongs(stray));
  const int64_t first = validator.check(50000).sequence;
  EXPECT_FALSE(validator.belongs(first));
  ASSERT_EQ(validator.check(50001).is, verdict::kRestarted);
  EXPECT_TRUE(validator.belongs(first));
  EXPECT_FALSE(validator.belongs(11));
}

// What comes out, in words: "3" a packet, "!3" one with something missing before it.
class ReorderBufferTest : public testing::Test {
 protected:
  void push(int64_t sequence, media_time at, size_t size = 8) {
    std::vector<uint8_t> bytes(size);
    std::memcpy(bytes.data(), &sequence, sizeof sequence);
    pushed = bytes.data();
    buffer.push(sequence, bytes.data(), bytes.size(), at);
  }
  void push(std::initializer_list<int64_t> sequences, media_time at) {
    for (const int64_t sequence : sequences) push(sequence, at);
  }
  void take(const reorder_buffer::ordered& one) {
    int64_t content = 0;
    std::memcpy(&content, one.bytes, sizeof content);
    EXPECT_EQ(content, one.sequence) << "the bytes of another packet";
    direct = one.bytes == pushed;
    out +=
        (out.empty() ? "" : " ") + std::string(one.lost ? "!" : "") + std::to_string(one.sequence);
  }
  std::string taken() { return std::exchange(out, {}); }
  std::string counted() const {
    const auto& c = buffer.counts();
    return std::to_string(c.received) + " received " + std::to_string(c.duplicates) + " twice " +
           std::to_string(c.late) + " late " + std::to_string(c.lost) + " lost " +
           std::to_string(c.reordered) + " reordered";
  }

  reorder_buffer buffer{100ms, [this](const reorder_buffer::ordered& one) { take(one); }};
  const uint8_t* pushed = nullptr;
  bool direct = false;
  std::string out;
};

TEST_F(ReorderBufferTest, GapsAreWaitedForAndGivenUp) {
  push({10, 11}, 0ms);
  EXPECT_EQ(taken(), "10 11");
  EXPECT_TRUE(direct) << "in order, nothing is copied";
  EXPECT_EQ(buffer.next_deadline(), std::nullopt);
  push(14, 10ms);
  push(13, 60ms);
  push(14, 70ms);
  EXPECT_EQ(taken(), "");
  EXPECT_EQ(buffer.next_deadline(), media_time(110ms)) << "14 has waited longest";
  buffer.advance(109ms);
  EXPECT_EQ(taken(), "");
  buffer.advance(110ms);
  EXPECT_EQ(taken(), "!13 14");
  push({12, 12, 13}, 111ms);
  EXPECT_EQ(taken(), "");
  push(17, 120ms);
  push(20, 130ms);
  push(16, 219ms);
  EXPECT_EQ(taken(), "");
  push(15, 220ms);
  EXPECT_EQ(taken(), "15 16 17") << "what comes in the last moment isn't late";
  push(21, 230ms);
  EXPECT_EQ(taken(), "!20 21");
  EXPECT_EQ(counted(), "13 received 3 twice 1 late 3 lost 4 reordered");
}

TEST_F(ReorderBufferTest, EndAndRestartLetOutWhatWaits) {
  push({10, 12}, 0ms);
  buffer.restart();
  EXPECT_EQ(taken(), "10 !12");
  push({5, 7, 9}, 1ms);
  buffer.finish();
  EXPECT_EQ(taken(), "!5 !7 !9");
  push(1'000'000'000'000, 2ms);
  EXPECT_EQ(taken(), "!1000000000000");
}

TEST_F(ReorderBufferTest, TooMuchThatWaitsGivesUpTheOldestGap) {
  push(0, 0ms);
  for (int64_t i = 2; i < 2050; ++i) push(i, 0ms);
  EXPECT_EQ(buffer.waiting(), 2048U);
  EXPECT_EQ(taken(), "0");
  push(2051, 0ms);
  EXPECT_EQ(buffer.waiting(), 1U) << "2051, behind a gap of its own";
  EXPECT_EQ(taken().substr(0, 8), "!2 3 4 5");
  push(9000, 0ms);
  EXPECT_EQ(taken(), "!2051 !9000") << "too far ahead to be waited for";
  for (int64_t i = 9002; i < 9066; ++i) push(i, 0ms, 65536);
  EXPECT_EQ(taken(), "") << "4 MiB";
  push(9067, 0ms);
  EXPECT_EQ(taken().substr(0, 10), "!9002 9003");
  push(12000, 0ms, 65536);
  for (int64_t i = 12001; i < 12063; ++i) push(i, 0ms, 65536);
  push(9070, 0ms, 1 << 20);
  EXPECT_EQ(taken(), "!9067 !9070") << "before all that waits: it needn't wait";
}

struct sent {
  int64_t number;
  media_time arrival;
  bool operator<(const sent& other) const { return arrival < other.arrival; }
};

// A packet each 2 ms: 2 % never come, 1 % twice, each 20th up to 50 packets later.
std::vector<sent> disturbed(int64_t first, int count, std::mt19937& random) {
  std::vector<sent> all;
  for (int i = 0; i < count; ++i) {
    if (i > 100 && random() % 100 < 2) continue;
    const media_time later = 2ms * static_cast<int>(random() % 50);
    const media_time at = 2ms * i + (i > 100 && random() % 20 == 0 ? later : 0ms);
    all.push_back({first + i, at});
    if (random() % 100 == 0) all.push_back({first + i, at + later});
  }
  std::stable_sort(all.begin(), all.end());
  return all;
}

TEST_F(ReorderBufferTest, DisturbedStreamComesOutOnceInOrderWithItsLosses) {
  std::mt19937 random(20);
  const int64_t first = 60000;
  const std::vector<sent> all = disturbed(first, 200'000, random);
  std::vector<bool> came(200'000);
  for (const sent& one : all) came[static_cast<size_t>(one.number - first)] = true;
  source_validator validator;
  int64_t expected = first + 1;  // the first one is on probation
  uint64_t lost = 0;
  const auto missing = [&] { return !came[static_cast<size_t>(expected - first)]; };
  reorder_buffer order(100ms, [&](const reorder_buffer::ordered& one) {
    const bool gap = missing();
    for (; missing(); ++expected) ++lost;
    EXPECT_EQ(one.sequence, expected++);
    EXPECT_EQ(one.lost, gap);
  });
  const uint8_t bytes[1200] = {};
  for (const sent& one : all) {
    order.advance(one.arrival - 1ns);
    const auto checked = validator.check(static_cast<uint16_t>(one.number));
    if (checked.is == verdict::kProbation) continue;
    ASSERT_EQ(checked.is, verdict::kValid);
    ASSERT_EQ(checked.sequence, one.number) << "over three wraps";
    order.push(checked.sequence, bytes, sizeof bytes, one.arrival);
  }
  order.finish();
  EXPECT_GT(lost, 3500U);
  EXPECT_EQ(order.counts().lost, lost);
  EXPECT_EQ(order.counts().late, 0U);
  EXPECT_EQ(order.counts().received - order.counts().duplicates, 199'999 - lost)
      << "each came out once";
}

}  // namespace
}  // namespace zelta::test
