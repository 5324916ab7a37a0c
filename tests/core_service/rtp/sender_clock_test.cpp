// SPDX-License-Identifier: Apache-2.0
// Where media lie on our timeline, judged by when they were captured.
#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/rtp/sender_clock.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::rtp;
using core_service::media::media_time;

constexpr media_time kStart = 100h;  // the clock has been running for a while
constexpr media_time kWay = 20ms;    // the shortest there is

double ms_of(media_time span) {
  return static_cast<double>(span.count()) / 1e6;
}

// A stream of a sender whose clock drifts. Its times are ours, since kStart.
struct Stream {
  uint32_t rate = 90000;
  uint32_t first = 0;
  double ppm = 0;
  media_time encoding{};  // between capture and sending
  uint64_t first_ntp = 0xe000000000000000;
  std::mt19937 random{7};

  // On the sender's clock.
  double seconds(media_time at) const { return ms_of(at) / 1000 * (1 + ppm / 1e6); }
  uint32_t timestamp(media_time captured) const {
    return first + static_cast<uint32_t>(std::llround(seconds(captured) * rate));
  }
  uint64_t ntp(media_time at) const {
    return first_ntp + static_cast<uint64_t>(std::llround(seconds(at) * 4294967296.0));
  }
  // Mostly little jitter, seldom much.
  media_time way() {
    const double share = std::generate_canonical<double, 32>(random);
    return kWay + media_time(static_cast<int64_t>(60e6 * share * share * share));
  }
  media_time arrival(media_time captured) { return kStart + captured + encoding + way(); }
};

// A clock and what it must keep to from packet to packet.
struct Placed {
  Placed(Stream& of, sender_clocks& sender) : stream(of), clock(of.rate, sender) {}

  void packet(media_time captured) {
    const uint32_t timestamp = stream.timestamp(captured);
    const auto got = clock.place(timestamp, stream.arrival(captured));
    const auto apart =
        media_time(static_cast<int32_t>(timestamp - before) * int64_t{1'000'000'000} / stream.rate);
    if (!got.anew) {
      EXPECT_LE(std::abs(ms_of(got.time - time - apart)), 1.000001);
      EXPECT_GT(got.time, time);
    }
    anew += got.anew ? 1 : 0;
    before = timestamp;
    time = got.time;
    off = ms_of(time - kStart - captured);
  }
  void report(media_time at) {
    clock.report(stream.ntp(at), stream.timestamp(at), kStart + at + stream.way());
  }

  Stream& stream;
  sender_clock clock;
  uint32_t before = 0;
  media_time time{};
  double off = 0;  // in ms, from when it was captured
  int anew = 0;
};

TEST(SenderClockTest, WithoutReportsDriftIsFollowedAndJitterIsNot) {
  for (const double ppm : {0., 300., -300., 500., -500.}) {
    for (const uint32_t rate : {8000U, 90000U}) {
      Stream stream{rate, 0xfff00000, ppm};
      sender_clocks sender;
      Placed placed(stream, sender);
      double least = 1000;
      double most = -1000;
      for (media_time at = 0ms; at < 30min; at += 20ms) {
        if (stream.random() % 50 == 0) continue;
        placed.packet(at);
        if (at < 15s) continue;
        least = std::min(least, placed.off);
        most = std::max(most, placed.off);
      }
      EXPECT_EQ(placed.anew, 1);
      // A transit that grows is known when the smaller ones are ten seconds old.
      EXPECT_GT(least, 20 - std::max(0., -ppm) / 100 - 0.5) << ppm << " ppm";
      EXPECT_LT(most, 20 + 1.5) << ppm << " ppm";
    }
  }
}

TEST(SenderClockTest, ReportsLayTheStreamsOfASenderOnEachOther) {
  for (const double ppm : {300., -300.}) {
    // NTP's seconds wrap on the way.
    Stream sound{48000, 0xffff0000, ppm, 5ms, 0xffffffff00000000, std::mt19937(1)};
    Stream picture{90000, 0x12345678, ppm, 180ms, 0xffffffff00000000, std::mt19937(2)};
    sender_clocks sender;
    Placed heard(sound, sender);
    Placed seen(picture, sender);
    for (media_time at = 0ms; at < 30min; at += 20ms) {
      heard.packet(at);
      if (at % 40ms == 0ms) seen.packet(at);
      if (at % 5s == 3s) heard.report(at);
      if (at % 5s == 4s) seen.report(at);
      if (at < 30s || at % 40ms != 0ms) continue;
      ASSERT_LT(std::abs(heard.off - seen.off), 3) << ms_of(at) << " ms";
      ASSERT_NEAR(heard.off, 30, 15);
    }
    EXPECT_EQ(heard.anew, 2) << "once by arrival, once by reports";
    EXPECT_EQ(seen.anew, 2);
    EXPECT_TRUE(heard.clock.by_reports() && seen.clock.by_reports());
  }
}

TEST(SenderClockTest, ReportsThatEndAreFollowedByArrivalWithoutASteppingApart) {
  Stream sound{48000, 5, 300, 5ms, 0, std::mt19937(1)};
  sound.first_ntp = 1;
  Stream picture{90000, 6, 300, 180ms, 1, std::mt19937(2)};
  sender_clocks sender;
  Placed heard(sound, sender);
  Placed seen(picture, sender);
  for (media_time at = 0ms; at < 30min; at += 40ms) {
    if (at == 20s) heard.report(at);
    if (at == 20s) seen.report(at);
    heard.packet(at);
    seen.packet(at);
    if (at < 40s) continue;
    ASSERT_LT(std::abs(heard.off - seen.off), 15) << ms_of(at) << " ms";
    ASSERT_NEAR(heard.off, 40, 30) << "the drift is followed";
  }
}

TEST(SenderClockTest, ReportsThatCantBeRightAreRefusedUntilTheyAre) {
  Stream right{48000, 0, 0, 5ms, 0xe000000000000000, std::mt19937(1)};
  Stream wrong{90000, 0, 0, 5ms, 0xe000000000000000 - (3600ULL << 32U), std::mt19937(2)};
  sender_clocks sender;
  Placed one(right, sender);
  Placed other(wrong, sender);
  const auto run = [&](media_time from, media_time to) {
    for (media_time at = from; at < to; at += 20ms) {
      if (at % 5s == 1s) one.report(at);
      if (at % 5s == 2s) other.report(at);
      one.packet(at);
      other.packet(at);
      if (at - from < 10s) continue;
      ASSERT_NEAR(one.off, 35, 25);
      ASSERT_NEAR(other.off, 35, 25);
    }
  };
  run(0s, 30s);
  EXPECT_TRUE(one.clock.by_reports());
  EXPECT_FALSE(other.clock.by_reports());
  EXPECT_TRUE(other.clock.reports_refused());
  // Its clock is set.
  wrong.first_ntp = right.first_ntp;
  run(30s, 60s);
  EXPECT_TRUE(other.clock.by_reports());
  EXPECT_FALSE(other.clock.reports_refused());
  other.clock.report(0, 12345, kStart + 60s);
  EXPECT_TRUE(other.clock.by_reports()) << "no wall clock: as if it had said nothing";
}

TEST(SenderClockTest, WrongReportMovesSoundLittleAndNeverForLong) {
  // Which reports are wrong, by how much, and how far from where it belongs sound is at most:
  // before any is proven, and from then on.
  const std::tuple<std::vector<int>, media_time, double, double> rows[] = {
      {{}, 0ms, 60, 10},    {{0}, 300ms, 60, 10},     {{0}, -300ms, 60, 10},
      {{2}, 300ms, 60, 10}, {{4, 6}, -700ms, 60, 10}, {{0, 2}, 300ms, 60, 10},
  };
  for (const auto& [wrong, by, unproven, proven] : rows) {
    Stream sound{48000, 5, 0, 40ms, 0xe000000000000000, std::mt19937(1)};
    sender_clocks sender;
    sender_clock clock(48000, sender, sender_clock::kMostOfSound);
    int number = 0;
    double worst_unproven = 0;
    double worst_proven = 0;
    for (media_time at = 0ms; at < 60s; at += 20ms) {
      const auto got = clock.place(sound.timestamp(at), sound.arrival(at));
      const double off = std::abs(ms_of(got.time - kStart - at - kWay));
      double& worst = at < 20s ? worst_unproven : worst_proven;
      worst = std::max(worst, off);
      if (at % 5s != 1s) continue;
      const bool is_wrong = std::find(wrong.begin(), wrong.end(), number++) != wrong.end();
      clock.report(sound.ntp(at), sound.timestamp(at + (is_wrong ? by : 0ms)),
                   kStart + at + sound.way());
    }
    EXPECT_LE(worst_unproven, unproven);
    EXPECT_LE(worst_proven, proven);
  }
}

TEST(SenderClockTest, TimestampsThatJumpBeginAnewWhereTheyArrive) {
  // A timestamp, its arrival, where it is placed, and whether anew.
  using step = std::tuple<uint32_t, media_time, media_time, bool>;
  const std::vector<step> rows[] = {
      {{0xffffff00, 0s, 0s, true}, {0xffffff00 + 90000, 1s, 1s, false}},
      {{1000, 0s, 0s, true}, {1000 + 3 * 90000, 1s, 3s, false}},
      {{1000, 0s, 0s, true}, {1000 + 4 * 90000 + 1, 1s, 1s, true}},
      {{1000, 0s, 0s, true}, {1900, 4s, 4s, true}, {2800, 4010ms, 4010ms, false}},
      {{1000, 0s, 0s, true}, {0x80000000, 1s, 1s, true}},
      {{1000, 0s, 0s, true}, {0x90000000, 1s, 1s, true}},
      // Pictures that are shown before those that they are made from, packet by packet.
      {{9000, 0s, 0s, true},
       {19800, 40ms, 119500us, false},
       {12600, 41ms, 39500us, false},
       {12600, 42ms, 39500us, false},
       {16200, 43ms, 79500us, false},
       {19800, 44ms, 119500us, false}},
      {{90000, 0s, 0s, true}, {1, 1ms, -999988889ns, false}, {0, 2ms, 2ms, true}},
      // A timestamp that stands still is of one moment, as long as that can be.
      {{7, 0s, 0s, true}, {7, 3s, 0s, false}, {7, 3001ms, 3001ms, true}},
  };
  for (const std::vector<step>& row : rows) {
    sender_clocks sender;
    sender_clock clock(90000, sender);
    for (size_t i = 0; i < row.size(); ++i) {
      const auto& [timestamp, arrival, expected, anew] = row[i];
      const auto got = clock.place(timestamp, kStart + arrival);
      EXPECT_NEAR(ms_of(got.time - kStart), ms_of(expected), 1)
          << "row " << &row - rows << ", step " << i;
      EXPECT_EQ(got.anew, anew) << "row " << &row - rows << ", step " << i;
    }
  }
}

}  // namespace
}  // namespace zelta::test
