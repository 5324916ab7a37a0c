// SPDX-License-Identifier: Apache-2.0
// Packets of Opus, and the gapless line that they become.
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/media/opus_line.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::media;

using bytes = std::vector<uint8_t>;

bytes joined(bytes head, size_t more) {
  head.resize(head.size() + more);
  return head;
}

shared_bytes shared(const bytes& from) {
  const auto owner = std::make_shared<const bytes>(from);
  return {owner, owner->data(), owner->size()};
}

TEST(OpusPacketTest, TellsConfigChannelsAndDuration) {
  // With its frames and their samples.
  const std::tuple<bytes, opus_mode, opus_bandwidth, bool, int, int> rows[] = {
      {{0x00}, opus_mode::kSilk, opus_bandwidth::kNarrow, false, 1, 480},
      {{0x3c, 1}, opus_mode::kSilk, opus_bandwidth::kMedium, true, 1, 2880},
      {{0x58, 1}, opus_mode::kSilk, opus_bandwidth::kWide, false, 1, 2880},
      {{0x60, 1}, opus_mode::kHybrid, opus_bandwidth::kSuperWide, false, 1, 480},
      {{0x79, 1, 2}, opus_mode::kHybrid, opus_bandwidth::kFull, false, 2, 1920},
      {{0x80}, opus_mode::kCelt, opus_bandwidth::kNarrow, false, 1, 120},
      {{0xac, 0}, opus_mode::kCelt, opus_bandwidth::kWide, true, 1, 240},
      {{0xd2, 1, 7, 7}, opus_mode::kCelt, opus_bandwidth::kSuperWide, false, 2, 960},
      {{0xff, 0x06, 1, 2, 3, 4, 5, 6}, opus_mode::kCelt, opus_bandwidth::kFull, true, 6, 5760},
  };
  for (const auto& [packet, mode, band, stereo, frames, samples] : rows) {
    const auto read = read_opus_packet(packet.data(), packet.size());
    ASSERT_TRUE(read) << int{packet[0]};
    EXPECT_EQ(std::tuple(read->mode, read->bandwidth, read->stereo, read->frames, read->samples()),
              std::tuple(mode, band, stereo, frames, samples))
        << int{packet[0]};
  }
}

TEST(OpusPacketTest, KeepsToTheRulesOfValidity) {
  const std::tuple<const char*, bytes, bool> rows[] = {
      {"R1", {}, false},
      {"R2, code 0", joined({0xf8}, 1275), true},
      {"R2, code 0, one more", joined({0xf8}, 1276), false},
      {"R2, code 1", joined({0xf9}, 2552), false},
      {"R2, second of code 2", joined({0xfa, 0}, 1276), false},
      {"R3", {0xf9, 1, 2, 3}, false},
      {"R3, nothing sent", {0xf9}, true},
      {"R4, no length", {0xfa}, false},
      {"R4, half a length", {0xfa, 252}, false},
      {"R4, too long", {0xfa, 2, 1}, false},
      {"R4, all in the first", {0xfa, 2, 1, 1}, true},
      {"R4, two bytes: 252 + 4", joined({0xfa, 252, 1}, 256), true},
      {"R4, one byte less", joined({0xfa, 252, 1}, 255), false},
      {"R5, no count", {0xfb}, false},
      {"R5, no frame", {0xfb, 0}, false},
      {"R5, 120 ms", {0xfb, 6}, true},
      {"R5, 140 ms", {0xfb, 7}, false},
      {"R5, 48 of 2.5 ms", {0xe3, 48}, true},
      {"R5, 49 of 2.5 ms", {0xe3, 49}, false},
      {"R6", {0xfb, 2, 1, 1, 1}, false},
      {"R6, padding takes the odd one", {0xfb, 0x42, 1, 1, 1, 0}, true},
      {"R6, padding longer than the rest", {0xfb, 0x42, 3, 1, 1}, false},
      {"R6, padding 254 + 1", joined({0xfb, 0x42, 255, 1}, 255), true},
      {"R6, padding 254 + 2", joined({0xfb, 0x42, 255, 2}, 255), false},
      {"R6, padding without an end", {0xfb, 0x42, 255, 255}, false},
      {"R7", {0xfb, 0x83, 1, 1, 9, 9}, true},
      {"R7, longer than the rest", {0xfb, 0x83, 2, 1, 9, 9}, false},
      {"R7, a length is missing", {0xfb, 0x83, 0}, false},
      {"R7 and padding", {0xfb, 0xc2, 1, 1, 9, 0}, true},
      {"R7, length in the padding", {0xfb, 0xc2, 2, 1, 9, 0}, false},
  };
  for (const auto& [rule, sent, valid] : rows) {
    // Memory of exactly its size, for the sanitizer to see a byte too many.
    const shared_bytes packet = shared(sent);
    EXPECT_EQ(read_opus_packet(packet.data(), packet.size()).has_value(), valid) << rule;
  }
}

TEST(OpusPacketTest, MakesSilenceLikeThePacketBefore) {
  // Like what, how many steps are missing, and the packet's first byte and duration.
  const std::tuple<opus_bandwidth, bool, int64_t, uint8_t, media_time> rows[] = {
      {opus_bandwidth::kFull, false, 8, 0xf8, 20ms},
      {opus_bandwidth::kFull, true, 1000, 0xfc, 20ms},
      {opus_bandwidth::kFull, false, 7, 0xf0, 10ms},
      {opus_bandwidth::kSuperWide, true, 3, 0xcc, 5ms},
      {opus_bandwidth::kWide, false, 1, 0xa0, 2500us},
      {opus_bandwidth::kMedium, false, 8, 0xb8, 20ms},
      {opus_bandwidth::kNarrow, true, 8, 0x9c, 20ms},
  };
  for (const auto& [band, stereo, steps, toc, duration] : rows) {
    opus_packet like;
    like.bandwidth = band;
    like.stereo = stereo;
    const opus_silence made = silence_like(like, steps);
    EXPECT_EQ(bytes(made.bytes.data(), made.bytes.data() + made.bytes.size()),
              (bytes{toc, 0xff, 0xfe}));
    EXPECT_EQ(made.duration, duration);
    const auto read = read_opus_packet(made.bytes.data(), made.bytes.size());
    EXPECT_EQ(read->duration(), duration);
  }
}

// Writes down what goes out: a letter a packet, by its last byte; silence as its tenths of ms.
class Sink : public opus_sink {
 public:
  void on_sound(const encoded_unit& unit) override {
    EXPECT_FALSE(ended);
    EXPECT_EQ(unit.time, end.value_or(unit.time));
    const auto read = read_opus_packet(unit.bytes.data(), unit.bytes.size());
    ASSERT_TRUE(read);
    EXPECT_EQ(unit.duration, read->duration());
    if (!end) begin = unit.time;
    end = unit.end();
    const uint8_t last = unit.bytes.data()[unit.bytes.size() - 1];
    const bool silent = unit.bytes.size() == 3 && last == 0xfe;
    heard += silent ? "(" + std::to_string(unit.duration / 100us) + ")"
                    : std::string(1, static_cast<char>(last));
    if (!silent) packets.push_back(unit);
  }
  void on_sound_end() override { ended = true; }

  std::optional<media_time> begin;
  std::optional<media_time> end;
  bool ended = false;
  std::string heard;
  std::vector<encoded_unit> packets;
};

constexpr media_time kZero = 100h;

class OpusLineTest : public testing::Test {
 protected:
  // Of CELT, which tells nothing of lost ones.
  void push(media_time time, char name, uint8_t toc = 0xf8) {
    line->push(kZero + time, shared({toc, static_cast<uint8_t>(name)}));
  }
  std::shared_ptr<Sink> start(media_time from) {
    auto made = std::make_shared<Sink>();
    line->start(kZero + from, made);
    return made;
  }
  void renew() { line.emplace(format); }

  const format_ptr format = std::make_shared<stream_format>();
  std::optional<opus_line> line{format};
};

// All packets have 20 ms and the line begins at 0.
TEST_F(OpusLineTest, PlacesPacketsByTheirTimes) {
  const std::tuple<const char*, std::vector<media_time>, const char*> rows[] = {
      {"in time", {0ms, 20ms, 40ms}, "abc"},
      {"first one late", {18ms, 40ms}, "(100)(50)(25)ab"},
      {"first one mostly before", {-11ms, 9ms}, "(100)b"},
      {"first one half before", {-10ms, 10ms}, "ab"},
      {"jitter", {0ms, 24ms, 32ms, 63ms, 84ms}, "abcde"},
      {"two lost", {0ms, 60ms}, "a(200)(200)b"},
      {"gap to the nearest step", {0ms, 43800us, 65ms}, "a(200)(50)bc"},
      {"one lost", {0ms, 40ms, 60ms}, "a(200)bc"},
      {"and one more", {0ms, 40ms, 80ms}, "a(200)b(200)c"},
      {"overtaken", {0ms, 40ms, 20ms, 60ms}, "a(200)bd"},
      {"twice the same", {0ms, 20ms, 20ms, 40ms}, "abd"},
      {"a leap and back", {0ms, 80ms, 20ms, 100ms}, "a(200)(200)(200)bd"},
  };
  for (const auto& [what, times, heard] : rows) {
    renew();
    const auto to = start(0ms);
    char name = 'a';
    for (const media_time time : times) push(time, name++);
    EXPECT_EQ(to->heard, heard) << what;
    EXPECT_EQ(to->begin, kZero) << what;
    EXPECT_EQ(to->end, line->position()) << what;
  }
}

TEST_F(OpusLineTest, TakesBackAsLittleOfADriftAsIsEnough) {
  // 300 ppm of ten minutes are 180 ms, of which 5 stay, or 10.
  // The sender's clock, what is inserted, its time, and what is dropped.
  const std::tuple<double, int64_t, media_time, int64_t> rows[] = {{1.0003, 70, 175ms, 0},
                                                                   {0.9997, 0, 0ms, 9}};
  for (const auto& [clock, inserted, inserted_time, dropped] : rows) {
    renew();
    start(0ms);
    for (int i = 0; i < 30'000; ++i) {
      push(media_time(static_cast<int64_t>(i * 20e6 * clock)), 'a');
    }
    const opus_line::counters& counted = line->counted();
    EXPECT_EQ(counted.inserted, inserted);
    EXPECT_EQ(counted.inserted_time, inserted_time);
    EXPECT_EQ(counted.dropped, dropped);
    EXPECT_EQ(counted.packets, 30'000 - dropped);
    EXPECT_EQ(counted.filled, 0ms);
    EXPECT_EQ(counted.late + counted.invalid, 0);
  }
}

TEST_F(OpusLineTest, CutsWhereTheLargerPartOfAPacketIs) {
  const std::tuple<media_time, const char*, const char*> rows[] = {
      {1ms, "", "abc(200)(200)d"},       {10ms, "", "abc(200)(200)d"},
      {11ms, "a", "bc(200)(200)d"},      {50ms, "ab", "c(200)(200)d"},
      {71ms, "abc(100)", "(200)(100)d"},  // in silence: to the step
      {99ms, "abc(200)(200)", "d"},      {110ms, "abc(200)(200)", "d"},
      {111ms, "abc(200)(200)d", ""},
  };
  for (const auto& [at, before, after] : rows) {
    for (const bool goes_on : {true, false}) {
      renew();
      const auto first = start(0ms);
      const auto second = std::make_shared<Sink>();
      line->cut(kZero + at, goes_on ? second : nullptr);
      EXPECT_EQ(first->ended, at == 1ms) << "no packet can belong before it";
      for (const auto& [time, name] :
           {std::pair{0ms, 'a'}, {20ms, 'b'}, {40ms, 'c'}, {100ms, 'd'}}) {
        push(time, name);
      }
      EXPECT_EQ(first->heard, before) << at.count();
      EXPECT_EQ(second->heard, goes_on ? after : "") << at.count();
      EXPECT_TRUE(!first->end || !second->begin || *first->end == *second->begin);
      line->fill_to(kZero + 200ms);
      EXPECT_TRUE(first->ended);
      EXPECT_EQ(line->position().has_value(), goes_on);
    }
  }
}

TEST_F(OpusLineTest, EndsAtACutThatNothingComesFor) {
  const auto to = start(0ms);
  push(0ms, 'a');
  line->cut(kZero + 100600us, nullptr);
  line->fill_to(kZero + 100600us);
  EXPECT_TRUE(to->ended);
  EXPECT_EQ(to->end, kZero + 100ms);
  EXPECT_EQ(line->position(), std::nullopt);
}

TEST_F(OpusLineTest, KeepsFiveSecondsBeforeAStart) {
  EXPECT_EQ(line->first_kept(), std::nullopt);
  for (int i = 0; i < 500; ++i) push(20ms * i, 'a');
  EXPECT_EQ(line->first_kept(), kZero + 4980ms);
  EXPECT_EQ(line->last_heard(), kZero + 10s);
  EXPECT_EQ(line->position(), std::nullopt);
  const auto to = start(9955ms);
  EXPECT_EQ(to->heard, "(50)aa");
  EXPECT_EQ(line->first_kept(), std::nullopt);
  // What comes after an end may be what a new beginning wants.
  line->cut(kZero + 10s, nullptr);
  push(10s, 'b');
  EXPECT_EQ(start(10s)->heard, "b");
  // Times that stand still don't make it grow.
  renew();
  for (int i = 0; i < 5000; ++i) push(0ms, static_cast<char>('a' + i / 3000));
  start(-1ms);
  EXPECT_EQ(line->counted().packets + line->counted().late + line->counted().dropped, 2000);
}

TEST_F(OpusLineTest, LeavesOutWhatIsNotOpus) {
  const auto to = start(0ms);
  line->push(kZero, {});
  line->push(kZero, shared({0xfb, 7}));
  EXPECT_EQ(line->last_heard(), std::nullopt);
  EXPECT_EQ(line->counted().invalid, 2);
  EXPECT_EQ(to->heard, "");
}

// A sender with everything at once, in files of ten seconds.
TEST_F(OpusLineTest, IsAsLongAsTheCall) {
  constexpr uint8_t kTocs[] = {0x78, 0xf4, 0x18, 0x4c, 0xe0, 0x68};  // 20, 10, 60, 20, 2.5, 10 ms
  for (unsigned seed = 0; seed < 20; ++seed) {
    renew();
    std::mt19937 random(seed);
    const auto below = [&random](unsigned limit) { return static_cast<int>(random() % limit); };
    const double clock = 1 + (below(601) - 300) * 1e-6;
    std::vector<media_time> times;
    std::vector<std::shared_ptr<Sink>> files{start(0ms)};
    media_time captured{};
    unsigned toc = 0;
    while (captured < 60s) {
      if (below(200) == 0) toc = static_cast<unsigned>(below(6));
      if (below(300) == 0) captured += below(2000) * 1ms;  // says nothing
      const auto time =
          std::chrono::duration_cast<media_time>(captured * clock) + (below(8001) - 4000) * 1us;
      const auto number = static_cast<uint16_t>(times.size());
      times.push_back(kZero + time);
      captured += read_opus_packet(&kTocs[toc], 1)->duration();
      if (below(50) == 0) continue;  // lost
      const bytes packet{kTocs[toc], 0, static_cast<uint8_t>(number >> 8U),
                         static_cast<uint8_t>(number & 0xffU), 'a'};
      if (time > 10s * static_cast<int>(files.size()) - 1s) {
        files.push_back(std::make_shared<Sink>());
        line->cut(kZero + 10s * static_cast<int>(files.size() - 1), files.back());
      }
      line->push(times.back(), shared(packet));
    }
    line->cut(kZero + 65s, nullptr);
    line->fill_to(kZero + 65s);
    media_time end = kZero;
    for (const auto& file : files) {
      EXPECT_EQ(file->begin, end);
      EXPECT_TRUE(file->ended);
      end = *file->end;
      for (const encoded_unit& unit : file->packets) {
        const uint8_t* const head = unit.bytes.data();
        const media_time off = unit.time - times[static_cast<size_t>(head[2] << 8U | head[3])];
        EXPECT_LE(off, 20ms + unit.duration / 2);
        EXPECT_GE(off, -20ms);
      }
    }
    EXPECT_GE(end, kZero + 65s - kOpusStep / 2);
    EXPECT_LE(end, kZero + 65s + kOpusStep / 2);
    EXPECT_EQ(end - kZero, (end - kZero) / kOpusStep * kOpusStep);
    EXPECT_GT(line->counted().packets * 100, static_cast<int64_t>(times.size()) * 95) << seed;
  }
}

}  // namespace
}  // namespace zelta::test
