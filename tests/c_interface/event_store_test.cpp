// SPDX-License-Identifier: Apache-2.0
// The queue of events by itself: its bound, its descriptor, and what it allocates.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>

#include "c_interface/event_parts.h"
#include "c_interface/event_store.h"
#include "support/counted_new.h"

namespace zelta::test {
namespace {

using c_interface::copy_event;
using c_interface::event_of;
using c_interface::event_store;

class EventStoreTest : public ::testing::Test {
 protected:
  EventStoreTest() { EXPECT_EQ(store.open().code, ZELTA_OK); }

  void push_frame(size_t bytes) {
    zelta_event e = event_of(ZELTA_EVENT_AUDIO_FRAME, sizeof e.as.audio, 5);
    e.as.audio.data = reinterpret_cast<const uint8_t*>(payload.data());
    e.as.audio.data_bytes = static_cast<uint32_t>(bytes);
    store.push(e);
  }
  const zelta_event* next() {
    const zelta_event* event = nullptr;
    store.next(0, event);
    return event;
  }
  bool readable() const {
    pollfd ready{store.fd(), POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
  }

  static constexpr size_t kBound = 10'000;
  const std::string payload = std::string(100'000, 'p');
  event_store store{kBound};
};

TEST_F(EventStoreTest, DropsFramesPastItsBoundAndTellsWhereAndHowMany) {
  for (int i = 0; i < 5; ++i) push_frame(4000);
  store.push(event_of(ZELTA_EVENT_SPEAKER, 0, 5));
  push_frame(4000);
  push_frame(100'000);

  const struct {
    int kind;
    uint64_t dropped;
    uint64_t so_far;
  } rows[] = {{ZELTA_EVENT_AUDIO_FRAME, 0, 0},
              {ZELTA_EVENT_AUDIO_FRAME, 0, 0},
              {ZELTA_EVENT_DROPPED, 3, 3},
              {ZELTA_EVENT_SPEAKER, 0, 0},
              {ZELTA_EVENT_DROPPED, 2, 5}};
  std::vector<const zelta_event*> taken;
  for (const auto& row : rows) {
    EXPECT_TRUE(readable());
    taken.push_back(next());
    ASSERT_NE(taken.back(), nullptr);
    EXPECT_EQ(taken.back()->kind, row.kind);
    if (row.kind != ZELTA_EVENT_DROPPED) continue;
    EXPECT_EQ(taken.back()->as.dropped.audio_frames, row.dropped);
    EXPECT_EQ(taken.back()->as.dropped.frames_so_far, row.so_far);
    EXPECT_TRUE(ZELTA_HAS(taken.back(), as.dropped.frames_so_far));
  }
  EXPECT_FALSE(readable());

  // What is lent still counts: there is room once it is given back.
  push_frame(4000);
  EXPECT_EQ(next()->kind, ZELTA_EVENT_DROPPED);
  EXPECT_TRUE(store.release(taken[0]));
  EXPECT_FALSE(store.release(taken[0])) << "twice";
  push_frame(4000);
  EXPECT_EQ(next()->kind, ZELTA_EVENT_AUDIO_FRAME);
}

TEST_F(EventStoreTest, HeldTwiceIsReleasedTwice) {
  push_frame(4000);
  const zelta_event* const event = next();
  EXPECT_TRUE(store.hold(event));
  EXPECT_TRUE(store.release(event));
  EXPECT_EQ(event->as.audio.data[3999], 'p');
  EXPECT_TRUE(store.release(event));
  EXPECT_FALSE(store.hold(event));
}

TEST_F(EventStoreTest, EndIsReadableAndBehindWhatWaits) {
  store.push(event_of(ZELTA_EVENT_LOST, 0));
  store.close();
  EXPECT_EQ(next()->kind, ZELTA_EVENT_LOST);
  const zelta_event* none = nullptr;
  EXPECT_EQ(store.next(-1, none), ZELTA_END);
  EXPECT_TRUE(readable());
}

TEST_F(EventStoreTest, AllocatesNothingOnceWarm) {
  const size_t sizes[] = {300, 1920, 0, 3000, 700};
  const auto play = [&] {
    for (const size_t bytes : sizes) push_frame(bytes);
    store.push(event_of(ZELTA_EVENT_SPEAKER, 0, 5));
    push_frame(20'000);
    int taken = 0;
    while (const zelta_event* const event = next()) {
      store.release(event);
      ++taken;
    }
    EXPECT_EQ(taken, 7);
  };
  play();
  const size_t warm = allocations();
  play();
  play();
  EXPECT_EQ(allocations() - warm, 0U);
}

// Frames of a size that is over leave their memory to those of another.
TEST_F(EventStoreTest, KeepsNoMoreThanTwiceItsBound) {
  for (const size_t bytes : {300U, 700U, 1500U, 3000U, 6000U, 9000U, 300U, 700U}) {
    std::vector<const zelta_event*> taken;
    while (true) {
      push_frame(bytes);
      taken.push_back(next());
      if (taken.back()->kind == ZELTA_EVENT_DROPPED) break;
    }
    for (const zelta_event* const event : taken) EXPECT_TRUE(store.release(event));
    EXPECT_LE(store.capacity(), 2 * kBound + 1024) << bytes;
    EXPECT_GE(store.capacity(), kBound / 2) << bytes;
  }
}

TEST_F(EventStoreTest, OnceClosedGivesTheMemoryOfWhatIsFreeBack) {
  constexpr size_t kPages = size_t{3} * 4096;
  event_store large(10 * payload.size());
  const zelta_event* held[3] = {};
  for (const zelta_event*& one : held) {
    zelta_event e = event_of(ZELTA_EVENT_AUDIO_FRAME, sizeof e.as.audio, 5);
    e.as.audio.data = reinterpret_cast<const uint8_t*>(payload.data());
    e.as.audio.data_bytes = static_cast<uint32_t>(payload.size());
    large.push(e);
    ASSERT_EQ(large.next(0, one), ZELTA_OK);
  }
  ASSERT_TRUE(large.release(held[0]));
  large.close();
  ASSERT_TRUE(large.release(held[1]));
  // Blocks are there until the store goes, so what they show can be looked at.
  EXPECT_EQ(held[0]->as.audio.data[kPages], 0) << "was free when it was closed";
  EXPECT_EQ(held[1]->as.audio.data[kPages], 0) << "was released later";
  EXPECT_EQ(held[2]->as.audio.data[kPages], 'p') << "is held";
}

TEST(EventParts, CopiesPointIntoTheirOwnMemory) {
  uint8_t picture[6] = {1, 2, 3, 4, 5, 6};
  zelta_event video = event_of(ZELTA_EVENT_VIDEO_FRAME, sizeof video.as.video);
  video.as.video.data = picture;
  video.as.video.data_bytes = sizeof picture;
  for (int i = 0; i < 3; ++i) video.as.video.planes[i] = picture + (i == 0 ? 0 : 3 + i);
  zelta_event joined = event_of(ZELTA_EVENT_JOINED, sizeof joined.as.joined);
  joined.as.joined.channel_id = "room";
  const zelta_volume volumes[2] = {{5, 6}, {7, 8}};
  zelta_event loud = event_of(ZELTA_EVENT_VOLUMES, sizeof loud.as.volumes);
  loud.as.volumes.speakers = volumes;
  loud.as.volumes.count = 2;

  alignas(8) unsigned char bytes[3][64] = {};
  ASSERT_EQ(c_interface::bytes_behind(video), 6U);
  ASSERT_EQ(c_interface::bytes_behind(joined), 5U);
  ASSERT_EQ(c_interface::bytes_behind(loud), 16U);
  zelta_event copies[3];
  copy_event(video, copies[0], bytes[0]);
  copy_event(joined, copies[1], bytes[1]);
  copy_event(loud, copies[2], bytes[2]);
  EXPECT_EQ(std::memcmp(bytes[0], picture, 6), 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(copies[0].as.video.planes[i], bytes[0] + (i == 0 ? 0 : 3 + i));
  }
  EXPECT_EQ(copies[0].as.video.data, bytes[0]);
  EXPECT_STREQ(copies[1].as.joined.channel_id, "room");
  EXPECT_EQ(static_cast<const void*>(copies[1].as.joined.channel_id), bytes[1]);
  EXPECT_EQ(copies[2].as.volumes.speakers[1].volume, 8U);
}

}  // namespace
}  // namespace zelta::test
