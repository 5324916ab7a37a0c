// SPDX-License-Identifier: Apache-2.0
// Which times are believed, by their order alone.
#include "packet_queue.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace zelta::lay {
namespace {

using times = std::vector<int64_t>;

// Tenths of a second in, and what comes out.
times mended(const times& in, int& count, int bytes = 0) {
  size_t next = 0;
  packet_queue queue([&](AVPacket& packet) {
    if (next == in.size()) return false;
    packet.pts = packet.dts = in[next++];
    packet.size = bytes;
    return true;
  });
  queue.restart(0, {1, 10});
  const av_ptr<AVPacket> packet = make_packet();
  times out;
  while (queue.next(*packet)) out.push_back(packet->pts);
  count = queue.mended();
  return out;
}

TEST(PacketQueue, MendsWhatComesBackAndKeepsPauses) {
  constexpr int64_t kFar = INT64_MAX - 5;
  const struct {
    const char* what;
    times in;
    times out;
  } rows[] = {
      {"nothing wrong", {0, 1, 2, 3}, {0, 1, 2, 3}},
      {"pictures in the order of decoding", {0, 4, 2, 1, 3, 8, 6}, {0, 4, 2, 1, 3, 8, 6}},
      {"the same around a pause", {0, 90, 1, 2, 94, 92, 91}, {0, 90, 1, 2, 94, 92, 91}},
      {"a pause, and some damaged behind",
       {0, 90, 91, 92, 93, 5, 6, 95},
       {0, 90, 91, 92, 93, 5, 6, 95}},
      {"a pause", {0, 1, 90, 91, 92}, {0, 1, 90, 91, 92}},
      {"a late beginning", {50, 51, 52}, {50, 51, 52}},
      {"one that jumps", {0, 1, 90, 3, 4, 5}, {0, 1, 2, 3, 4, 5}},
      {"the first one", {90, 2, 3, 4}, {1, 2, 3, 4}},
      {"several that jump", {0, 1, 90, 91, 92, 5, 6}, {0, 1, 2, 3, 4, 5, 6}},
      {"as far as numbers go", {0, 1, kFar, 3, 4}, {0, 1, 2, 3, 4}},
      {"twice", {0, 90, 2, 3, 80, 5, 6}, {0, 1, 2, 3, 4, 5, 6}},
      {"before the last one", {0, 1, 90, 3}, {0, 1, 2, 3}},
      {"the last one, which nothing contradicts", {0, 1, 90}, {0, 1, 90}},
      {"one that falls back behind a pause", {0, 1, 90, 91, 5, 93, 94}, {0, 1, 90, 91, 5, 93, 94}},
  };
  for (const auto& row : rows) {
    int count = 0;
    EXPECT_EQ(mended(row.in, count), row.out) << row.what;
    EXPECT_EQ(count > 0, row.in != row.out) << row.what;
  }
}

TEST(PacketQueue, LooksAheadNoFurtherThanAFragment) {
  times in(1000);
  std::iota(in.begin(), in.end(), 900);
  in.insert(in.end(), {1, 2});
  int count = 0;
  EXPECT_EQ(mended(in, count), in);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(mended({0, 90, 91, 3, 4}, count, 30 << 20), (times{0, 90, 91, 3, 4}));
  EXPECT_EQ(mended({0, 90, 91, 3, 4}, count, 10 << 20), (times{0, 1, 2, 3, 4}));
}

}  // namespace
}  // namespace zelta::lay
