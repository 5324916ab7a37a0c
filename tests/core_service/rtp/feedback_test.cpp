// SPDX-License-Identifier: Apache-2.0
// What a sender hears of what didn't come and of when the rest did, and packets sent again.
#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/rtp/nack_list.h"
#include "core_service/rtp/network_order.h"
#include "core_service/rtp/packet.h"
#include "core_service/rtp/retransmission.h"
#include "core_service/rtp/rtcp.h"
#include "core_service/rtp/transport_feedback.h"
#include "support/counted_new.h"
#include "support/hex.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::rtp;
using core_service::media::media_time;

constexpr media_time kPatience = 400ms;

std::string due(nack_list& list, media_time now, size_t capacity = 16) {
  std::vector<uint16_t> numbers(capacity);
  numbers.resize(list.take_due(now, numbers.data(), capacity));
  std::string text;
  for (const uint16_t number : numbers) text += std::to_string(number) + " ";
  return text + "| ";
}

// "7@20": packet 7 comes at 20 ms. "?30": what is due at 30 ms. "restart".
std::string played(const std::string& script) {
  nack_list list(kPatience);
  std::string out;
  std::istringstream steps(script);
  for (std::string step; steps >> step;) {
    const size_t at = step.find('@');
    if (step == "restart") {
      list.restarted();
    } else if (step[0] == '?') {
      out += due(list, 1ms * std::stoi(step.substr(1)));
    } else {
      list.received(std::stoll(step.substr(0, at)), 1ms * std::stoi(step.substr(at + 1)));
    }
  }
  EXPECT_FALSE(list.overwhelmed()) << script;
  return out;
}

TEST(NackListTest, WhatIsMissingIsAskedForInTimeAndNotLonger) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"nothing is missing", "1@0 2@0 3@20 ?50", "| "},
      {"lost", "1@0 4@0 ?9 ?10 ?10", "| 2 3 | | "},
      {"overtook each other", "1@0 3@0 2@9 ?10 ?200", "| | "},
      {"a burst, and one of it comes", "1@0 5@0 3@5 ?10", "2 4 | "},
      {"two losses apart", "1@0 3@0 4@5 6@8 ?10 ?17 ?18", "2 | | 5 | "},
      {"again while no answer is known", "1@0 3@0 ?10 ?109 ?110 ?209 ?210", "2 | | 2 | | 2 | "},
      {"answered", "1@0 3@0 ?10 2@60 ?110 ?200", "2 | | | "},
      {"as long as it is waited for", "1@0 3@0 ?10 ?399 ?400", "2 | 2 | | "},
      {"nobody asked in time", "1@0 3@0 ?400", "| "},
      {"its next turn would be too late", "1@0 3@0 ?350 ?399", "2 | | "},
      {"wraps", "65533@0 65538@0 ?10", "65534 65535 0 1 | "},
      {"from before the first", "1@0 0@0 -1@1 2@2 ?20", "| "},
      {"from before 0", "-3@0 1@0 ?10", "65534 65535 0 | "},
      {"duplicates", "1@0 1@0 3@0 3@1 ?10 2@20 2@21 ?200", "2 | | "},
      {"given up, and comes", "1@0 3@0 ?10 ?400 2@401 ?600", "2 | | | "},
      {"answers take 40 ms", "1@0 3@0 ?10 2@50 5@100 ?110 ?159 ?160", "2 | 4 | | 4 | "},
      {"answers take no time", "1@0 3@0 ?10 2@10 5@100 ?110 ?129 ?130", "2 | 4 | | 4 | "},
      {"stamped before it was asked for", "1@0 3@0 ?10 2@9 5@100 ?110 ?130", "2 | 4 | 4 | "},
      {"another beginning", "1@0 3@0 restart 100@5 102@5 ?20", "101 | "},
      {"a beginning further back", "100@0 102@0 restart 5@5 7@5 ?20", "6 | "},
  };
  for (const auto& [what, script, asked] : rows) EXPECT_EQ(played(script), asked) << what;
}

TEST(NackListTest, DeadlinesAreThoseOfWhatIsAskedForAndEndWithIt) {
  nack_list list(60s);
  EXPECT_FALSE(list.next_deadline());
  list.received(1, 0ms);
  list.received(4, 0ms);
  list.received(4, 0ms);
  EXPECT_EQ(list.next_deadline(), 10ms);
  EXPECT_EQ(due(list, 10ms, 1), "2 | ");
  EXPECT_EQ(list.next_deadline(), 10ms) << "there was no room for the other";
  EXPECT_EQ(due(list, 12ms, 2), "3 | ");
  EXPECT_EQ(list.next_deadline(), 110ms);
  list.received(3, 212ms);
  std::vector<media_time> asked;
  while (list.next_deadline()) {
    asked.push_back(*list.next_deadline());
    ASSERT_EQ(due(list, asked.back()), "2 | ");
  }
  ASSERT_EQ(asked.size(), 9U) << "ten times together";
  // An answer took 200 ms: that, and a quarter.
  EXPECT_EQ(asked.back(), 110ms + 8 * 250ms);
  EXPECT_EQ(list.missing(), 1U);
  list.received(2, 50s);
  EXPECT_EQ(list.missing(), 0U);
  EXPECT_EQ(list.counts().missing, 2U);
  EXPECT_EQ(list.counts().requests, 11U);
  EXPECT_EQ(list.counts().answered, 2U);
}

TEST(NackListTest, NobodyIsWokenForWhatIsNotWaitedForAnyMore) {
  nack_list list(kPatience);
  list.received(1, 0ms);
  list.received(3, 0ms);
  EXPECT_EQ(due(list, 299ms), "2 | ");
  EXPECT_EQ(list.next_deadline(), 399ms);
  list.received(2, 298ms);
  EXPECT_EQ(list.round_trip(), 0ms) << "it was stamped before it was asked for";
  list.received(5, 300ms);
  EXPECT_EQ(due(list, 690ms), "4 | ");
  EXPECT_FALSE(list.next_deadline()) << "later it is given up";
}

TEST(NackListTest, TooManyAreGivenUpAtOnceAndToldOnce) {
  const std::tuple<const char*, int64_t, media_time, bool, size_t> rows[] = {
      {"one more", 1003, 399ms, true, 0},
      {"the others are forgotten by then", 1003, 400ms, false, 1},
      {"a thousand in their place", 2002, 400ms, false, 1000},
      {"and one", 2003, 400ms, true, 0},
  };
  for (const auto& [what, next, at, overwhelmed, missing] : rows) {
    nack_list list(kPatience);
    list.received(0, 0ms);
    list.received(1001, 0ms);
    EXPECT_EQ(list.missing(), nack_list::kMostMissing);
    EXPECT_FALSE(list.overwhelmed());
    list.received(next, at);
    EXPECT_EQ(list.missing(), missing) << what;
    EXPECT_EQ(list.overwhelmed(), overwhelmed) << what;
    EXPECT_FALSE(list.overwhelmed()) << what;
    list.received(500, at);
    list.received(next + 2, at + kPatience);
    EXPECT_EQ(list.missing(), 1U) << what << ": it goes on from there";
  }
}

// Each tenth packet is lost, be it an answer or not.
TEST(NackListTest, LossesAreMadeUpForWithHardlyMoreRequestsThanThereAre) {
  for (const media_time round_trip : {5ms, 30ms, 60ms, 150ms}) {
    std::mt19937 random(7);
    nack_list list(kPatience);
    std::multimap<media_time, int64_t> answers;
    int64_t next = 65000;
    for (media_time now = 0ms; now < 200s; now += 1ms) {
      if (now % 5ms == 0ms) {
        ++next;
        if (random() % 10 != 0) list.received(next, now);
      }
      for (; !answers.empty() && answers.begin()->first <= now; answers.erase(answers.begin())) {
        list.received(answers.begin()->second, now);
      }
      uint16_t numbers[32];
      const size_t count = list.take_due(now, numbers, 32);
      for (size_t i = 0; i < count; ++i) {
        const auto behind = static_cast<uint16_t>(next - numbers[i]);
        if (random() % 10 != 0) answers.emplace(now + round_trip, next - behind);
      }
    }
    const auto& counts = list.counts();
    EXPECT_GT(counts.missing, 3500U);
    // Where there is time for two requests, one packet of a hundred stays lost.
    EXPECT_GT(counts.answered * 1000, counts.missing * 980) << round_trip.count();
    EXPECT_LT(counts.requests * 100, counts.missing * 120) << round_trip.count();
    EXPECT_NEAR(static_cast<double>(list.round_trip()->count()),
                static_cast<double>(round_trip.count()),
                static_cast<double>(round_trip.count()) * 0.3 + 10e6);
  }
}

TEST(FeedbackTest, RequestsAndRatesAreWrittenToTheByte) {
  uint8_t buffer[96];
  const std::pair<std::vector<uint16_t>, std::string> asked[] = {
      {{7}, "81cd0003 0000cafe 01020304 00070000"},
      {{7, 8, 23}, "81cd0003 0000cafe 01020304 00078001"},
      {{7, 24}, "81cd0004 0000cafe 01020304 00070000 00180000"},
      {{65534, 65535, 1, 14, 15}, "81cd0004 0000cafe 01020304 fffe8005 000f0000"},
      {{7, 7, 9}, "81cd0003 0000cafe 01020304 00070002"},
  };
  for (const auto& [numbers, bytes] : asked) {
    rtcp_writer writer(buffer, sizeof buffer);
    EXPECT_TRUE(writer.nack(0xcafe, 0x01020304, numbers.data(), numbers.size()));
    EXPECT_EQ(to_hex(buffer, writer.size()), without_spaces(bytes));
    rtcp_writer small(buffer, writer.size() - 1);
    EXPECT_FALSE(small.nack(0xcafe, 0x01020304, numbers.data(), numbers.size()));
    EXPECT_FALSE(small.nack(0xcafe, 0x01020304, numbers.data(), 0)) << "there is no such packet";
    EXPECT_EQ(small.size(), 0U);
  }
}

struct nobody : rtcp_visitor {
  void report(const sender_report& /*one*/) override { FAIL(); }
  void bye(uint32_t /*ssrc*/) override { FAIL(); }
};

// What a sender reads in one packet of feedback, as strictly as can be.
struct read_feedback {
  explicit read_feedback(const byte_list& packet) {
    nobody visitor;
    EXPECT_TRUE(parse_rtcp(packet.data(), packet.size(), visitor));
    EXPECT_LE(packet.size(), transport_feedback::kMostBytes);
    EXPECT_EQ(to_hex(packet.data(), 2), "8fcd");
    EXPECT_EQ(4U * (read_16(packet.data() + 2) + 1U), packet.size());
    base = read_16(packet.data() + 12);
    const size_t count = read_16(packet.data() + 14);
    number = packet[19];
    at = packet.data() + 20;
    while (symbols.size() < count && at < packet.data() + packet.size()) read_chunk(count);
    EXPECT_EQ(symbols.size(), count);
    uint32_t tick = read_32(packet.data() + 16) >> 8U << 8U;
    for (const unsigned symbol : symbols) {
      EXPECT_LE(symbol, 2U);
      if (symbol == 1) tick += *at;
      if (symbol == 2) tick += static_cast<uint32_t>(static_cast<int16_t>(read_16(at)));
      at += symbol;
      ticks.push_back(symbol == 0 ? std::nullopt : std::optional(tick));
    }
    EXPECT_LE(at, packet.data() + packet.size());
    EXPECT_LT(packet.data() + packet.size() - at, 4) << "more than fills a word";
    EXPECT_TRUE(std::all_of(at, packet.data() + packet.size(), [](uint8_t b) { return b == 0; }));
  }

  void read_chunk(size_t count) {
    const unsigned bits = read_16(at);
    at += 2;
    if (bits >> 15U == 0) {
      symbols.insert(symbols.end(), bits & 0x1fffU, bits >> 13U);
    } else {
      const unsigned width = 1U + (bits >> 14U & 1U);
      for (unsigned shift = 14; shift > 0;) {
        shift -= width;
        symbols.push_back(bits >> shift & (width == 1 ? 1U : 3U));
      }
    }
    for (; symbols.size() > count; symbols.pop_back()) {
      EXPECT_EQ(symbols.back(), 0U) << "said of packets that it isn't about";
    }
  }

  uint16_t base = 0;
  uint8_t number = 0;
  std::vector<unsigned> symbols;
  std::vector<std::optional<uint32_t>> ticks;
  const uint8_t* at = nullptr;
};

std::vector<byte_list> written(transport_feedback& feedback, size_t capacity = 1500) {
  std::vector<byte_list> all;
  for (;;) {
    byte_list bytes(capacity);
    rtcp_writer writer(bytes.data(), bytes.size());
    const bool any = feedback.write(writer, 0xcafe, 0x01020304);
    EXPECT_EQ(any, writer.size() > 0);
    if (!any) return all;
    bytes.resize(writer.size());
    all.push_back(std::move(bytes));
  }
}

std::string written_hex(transport_feedback& feedback) {
  std::string text;
  for (const byte_list& one : written(feedback)) text += to_hex(one.data(), one.size());
  return text;
}

TEST(TransportFeedbackTest, ArrivalsAreWrittenToTheByte) {
  const std::string head = "0000cafe01020304";
  transport_feedback feedback;
  EXPECT_FALSE(feedback.waiting());
  EXPECT_EQ(written_hex(feedback), "");
  feedback.received(7, 1s);
  feedback.received(8, 1s + 250us);
  feedback.received(8, 2s);
  feedback.received(10, 1s + 100ms);
  // 64 ms 15 times and 160 ticks, a tick, nothing, 399 ticks.
  EXPECT_EQ(written_hex(feedback),
            without_spaces("8fcd0006" + head + "0007 0004 00000f00 d480 a0 01 018f 0000"));
  EXPECT_FALSE(feedback.waiting());
  feedback.received(9, 1s + 200ms);
  feedback.received(11, 1s + 201ms);
  // The tenth came before the ninth: 400 ticks back.
  EXPECT_EQ(written_hex(feedback),
            without_spaces("8fcd0006" + head + "0009 0003 00001201 da00 c0 fe70 0194 00"));
  // One, a hundred that are missing, and fifteen in a row.
  feedback.received(12, 64ms);
  for (uint16_t i = 0; i < 15; ++i) feedback.received(static_cast<uint16_t>(113 + i), 64ms);
  EXPECT_EQ(written_hex(feedback),
            without_spaces("8fcd000a" + head + "000c 0074 00000102 a000 0057 200f") +
                std::string(32, '0') + "0000");
  // As much as one byte says, a tick more, and one back.
  feedback.received(128, 64ms);
  feedback.received(129, 64ms + 255 * 250us);
  feedback.received(130, 64ms + 511 * 250us);
  feedback.received(131, 64ms + 510 * 250us);
  EXPECT_EQ(written_hex(feedback),
            without_spaces("8fcd0006" + head + "0080 0004 00000103 d680 00 ff 0100 ffff"));
  transport_feedback fresh;
  fresh.received(5, 0ms);
  EXPECT_EQ(read_feedback(written(fresh).at(0)).ticks.at(0), 1U) << "at the clock's very beginning";
}

TEST(TransportFeedbackTest, AWriterWithoutRoomChangesNothing) {
  transport_feedback feedback;
  for (int i = 0; i < 300; ++i) feedback.received(static_cast<uint16_t>(3 * i), 1s + 1ms * i);
  uint8_t buffer[transport_feedback::kLeastRoom];
  for (size_t room = 0; room < 28; ++room) {
    rtcp_writer writer(buffer, room);
    const bool any = feedback.write(writer, 1, 2);
    EXPECT_EQ(any, room >= 24) << room;
    EXPECT_EQ(writer.size(), any ? 24U : 0U);
  }
  EXPECT_EQ(read_feedback(written(feedback, sizeof buffer).front()).number, 4);
}

TEST(TransportFeedbackTest, LongPausesManyPacketsAndNewBeginningsAreKeptApart) {
  transport_feedback feedback;
  feedback.received(65535, 1s);
  feedback.received(0, 1s + 32767 * 250us);
  feedback.received(1, 10s + 32768 * 250us);
  std::vector<byte_list> all = written(feedback);
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(read_feedback(all[0]).ticks.size(), 2U);
  EXPECT_EQ(read_feedback(all[1]).base, 1);

  // More than is kept, 10 ms apart by turns, so that each needs two bytes.
  for (int i = 2; i < 6002; ++i) {
    feedback.received(static_cast<uint16_t>(i), 20s + (i % 2 == 0 ? 0ms : 100ms));
  }
  all = written(feedback);
  size_t said = 0;
  for (const byte_list& one : all) said += read_feedback(one).ticks.size();
  EXPECT_EQ(read_feedback(all.front()).base, 6002 - transport_feedback::kRing);
  EXPECT_EQ(said, static_cast<size_t>(transport_feedback::kRing));
  EXPECT_LE(all.size(), 10U);

  // Lost for good, late, too late, and so far back that it isn't late any more.
  const auto last = static_cast<uint16_t>(6001 + 3000);
  const auto most = static_cast<uint16_t>(transport_feedback::kMostLate);
  feedback.received(last, 21s);
  EXPECT_EQ(read_feedback(written(feedback).at(0)).ticks.size(), 3000U);
  feedback.received(static_cast<uint16_t>(last - most), 21s);
  EXPECT_FALSE(feedback.waiting());
  feedback.received(static_cast<uint16_t>(last - most + 1), 21s);
  EXPECT_EQ(read_feedback(written(feedback).at(0)).ticks.size(), size_t{most});
  // It lies where the last one did.
  const auto far = static_cast<uint16_t>(last - 2 * transport_feedback::kRing);
  feedback.received(far, 22s);
  all = written(feedback);
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(read_feedback(all[0]).base, far);
  ASSERT_EQ(read_feedback(all[0]).ticks.size(), 1U);
  EXPECT_EQ(read_feedback(all[0]).ticks[0], 22U * 4000U);
}

// A transport with losses alone and in bursts, jitter, duplicates and pauses.
std::multimap<media_time, int64_t> disturbed(media_time from, std::mt19937& random) {
  std::multimap<media_time, int64_t> arrivals;
  int burst = 0;
  for (int64_t number = 65000; number < 100'000; ++number) {
    from += 250us * static_cast<int>(random() % 12);
    if (random() % 10'000 == 0) from += 9s;
    if (random() % 1000 == 0) burst = 60;
    if (burst-- > 0 || random() % 50 == 0) continue;
    const media_time jitter = random() % 20 == 0 ? 1us * static_cast<int>(random() % 60'000) : 0us;
    arrivals.emplace(from + jitter, number);
    if (random() % 100 == 0) arrivals.emplace(from + jitter + 30ms, number);
  }
  return arrivals;
}

TEST(TransportFeedbackTest, ADisturbedTransportIsSaidWholeAndAsItWas) {
  std::mt19937 random(11);
  // Over the wrap of the reference time, too.
  const media_time begin = 1'073'741s;
  const auto arrivals = disturbed(begin, random);
  transport_feedback feedback;
  std::map<int64_t, uint32_t> came;
  std::map<int64_t, bool> said;
  uint8_t packets = 0;
  const auto write_and_check = [&] {
    for (const byte_list& bytes : written(feedback, 64 + random() % 1400)) {
      const read_feedback one(bytes);
      EXPECT_EQ(one.number, packets++);
      // The highest that came is less than half of all numbers away.
      const int64_t highest = came.rbegin()->first;
      int64_t number = highest - static_cast<uint16_t>(highest - one.base);
      for (const auto& tick : one.ticks) {
        const auto truth = came.find(number);
        ASSERT_EQ(tick.has_value(), truth != came.end()) << number;
        if (tick) {
          ASSERT_EQ(*tick, truth->second) << number;
          said[number] = true;
        }
        ++number;
      }
    }
  };
  media_time next = begin + 50ms;
  for (const auto& [at, number] : arrivals) {
    for (; next <= at; next += 50ms) write_and_check();
    feedback.received(static_cast<uint16_t>(number), at);
    came.emplace(number, std::max(static_cast<uint32_t>(at / 250us), 1U));
  }
  write_and_check();
  EXPECT_GT(came.size(), 30'000U);
  EXPECT_EQ(said.size(), came.size());
}

std::string restored(std::string bytes) {
  std::vector<uint8_t> own(bytes.begin(), bytes.end());
  const auto size = restore(own.data(), own.size(), 0x0a0b0c0d, 0x60);
  EXPECT_TRUE(size || own == std::vector<uint8_t>(bytes.begin(), bytes.end())) << "it was changed";
  return size ? std::string(own.begin(), own.begin() + static_cast<int64_t>(*size)) : "none";
}

TEST(RetransmissionTest, ThePacketThatWasLostComesBackByteForByte) {
  const std::string fixed("\xe0\x12\x34TIME\x0a\x0b\x0c\x0d", 11);
  const std::string resent("\xe1\xff\xffTIMEssrc", 11);
  // The first byte, what stands between header and payload, and the payload with its padding.
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"\x80", "", "payload"},
      {"\x80", "", ""},
      {"\x81", "CSRC", "payload"},
      {"\x90", std::string("\xbe\xde\0\1\x31xx\0", 8), "payload"},
      {"\xa0", "", std::string("payload\0\0\3", 10)},
      {"\xb1", std::string("CSRC\xbe\xde\0\1\x31xx\0", 12), std::string("\0\2", 2)},
  };
  for (const auto& [first, between, payload] : rows) {
    std::string sent(first);
    std::string original(first);
    sent.append(resent).append(between).append("\x12\x34").append(payload);
    original.append(fixed).append(between).append(payload);
    EXPECT_EQ(restored(sent), original);
  }
  const std::string unmarked = "\x80\x61" + resent.substr(1) + "\x12\x34";
  EXPECT_EQ(restored(unmarked), "\x80\x60" + fixed.substr(1));
  const std::string none[] = {
      "",
      "\x80" + resent.substr(1),
      "\x80" + resent,
      "\x80" + resent + "\x12",
      "\x40" + resent + "\x12\x34",
      "\xa0" + resent + std::string("\0\0\0\4", 4),
      "\xa0" + resent + std::string("\x12\0\2", 3),
      "\x81" + resent + "CSR",
  };
  for (const std::string& bytes : none) EXPECT_EQ(restored(bytes), "none") << bytes;
}

TEST(FeedbackTest, NothingIsAllocatedOnceItIsWarm) {
  nack_list list(kPatience);
  transport_feedback feedback;
  uint8_t buffer[1500];
  media_time now = 0ms;
  int64_t number = 0;
  size_t asked = 0;
  const auto play = [&] {
    for (int i = 0; i < 5000; ++i, ++number) {
      now += 1ms;
      // A burst as well: what is the most at a time decides.
      if (number % 7 == 0 || number % 1000 < 50) continue;
      list.received(number, now);
      feedback.received(static_cast<uint16_t>(number), now);
      uint16_t numbers[64];
      const size_t count = list.take_due(now, numbers, 64);
      asked += count;
      rtcp_writer writer(buffer, sizeof buffer);
      writer.nack(1, 2, numbers, count);
      if (number % 50 == 0) feedback.write(writer, 1, 2);
    }
  };
  play();
  const size_t warm = allocations();
  ASSERT_GT(warm, 0U) << "they are counted";
  const size_t before = asked;
  play();
  EXPECT_EQ(allocations(), warm);
  EXPECT_GT(asked, before);
}

}  // namespace
}  // namespace zelta::test
