// SPDX-License-Identifier: Apache-2.0
// A stream that runs allocates nothing. A program of its own, because it counts every allocation of
// the process.
#include <algorithm>
#include <array>
#include <utility>

#include <gtest/gtest.h>

#include "core_service/rtp/depayload/depayloader.h"
#include "support/counted_new.h"

namespace zelta::test {
namespace {

using namespace core_service;

constexpr size_t kPacketBytes = 1200;
constexpr size_t kPacketsAPicture = 40;
constexpr int kPictures = 100;

struct stream {
  const char* codec;
  // What each packet begins with: the first, those between, and the last of a picture.
  std::array<uint8_t, 3> first;
  std::array<uint8_t, 3> between;
  std::array<uint8_t, 3> last;
};

void play(rtp::depayloader& to, const stream& of) {
  std::array<uint8_t, kPacketBytes> payload{};
  rtp::packet one;
  one.payload = payload.data();
  one.payload_bytes = payload.size();
  for (int i = 0; i < kPictures; ++i) {
    ++one.timestamp;
    for (size_t at = 1; at <= kPacketsAPicture; ++at) {
      one.marker = at == kPacketsAPicture;
      const auto& begin = at == 1 ? of.first : one.marker ? of.last : of.between;
      std::copy(begin.begin(), begin.end(), payload.begin());
      // Every eighth picture misses something.
      to.push(one, i % 8 == 7 && at == kPacketsAPicture / 2);
    }
  }
}

TEST(Depayload, AllocatesNothingOnceWarm) {
  const stream streams[] = {
      {"h264", {0x5c, 0x81}, {0x5c, 0x01}, {0x5c, 0x41}},
      {"hevc", {0x62, 0x01, 0x81}, {0x62, 0x01, 0x01}, {0x62, 0x01, 0x41}},
      {"vp8", {0x10, 0x11}, {0x00}, {0x00}},
      {"vp9", {0x08}, {0x00}, {0x04}},
      {"av1", {0x50, 0x30}, {0xd0}, {0x90}},
      {"opus", {0x78}, {0x78}, {0x78}},
  };
  for (const stream& of : streams) {
    SCOPED_TRACE(of.codec);
    media::byte_pool pool;
    media::codec kind{};
    kind.name = of.codec;
    size_t units = 0;
    // The one that came last is still in use while the next is built.
    rtp::depayloaded held;
    const auto to = rtp::make_depayloader(kind, pool, [&](rtp::depayloaded&& unit) {
      ++units;
      held = std::move(unit);
    });
    play(*to, of);
    const size_t warm = allocations();
    ASSERT_GT(warm, 0U) << "they are counted";
    const size_t before = units;
    play(*to, of);
    EXPECT_EQ(allocations() - warm, 0U);
    EXPECT_GE(units - before, 80U);
  }
}

}  // namespace
}  // namespace zelta::test
