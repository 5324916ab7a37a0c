// SPDX-License-Identifier: Apache-2.0
// The memory of decoded pictures: blocks that don't touch each other, that come and go, and that
// every decoder takes.
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/event_loop.h"
#include "core_service/media/bin_feed.h"
#include "core_service/media/decode_graph.h"
#include "core_service/media/picture_memory.h"

namespace zelta::test {
namespace {

using namespace core_service;
using namespace core_service::media;

class PictureMemoryTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

buffer_ptr picture_of(size_t bytes, GstAllocationParams* params = nullptr) {
  return buffer_ptr(gst_buffer_new_allocate(picture_allocator(), bytes, params));
}

bool is_all(const buffer_ptr& buffer, size_t bytes, uint8_t value) {
  GstMapInfo mapped{};
  if (gst_buffer_map(buffer.get(), &mapped, GST_MAP_READ) == FALSE) return false;
  const bool good = mapped.size == bytes && mapped.data[0] == value &&
                    std::memcmp(mapped.data, mapped.data + 1, bytes - 1) == 0;
  gst_buffer_unmap(buffer.get(), &mapped);
  return good;
}

TEST_F(PictureMemoryTest, BlocksKeepWhatIsInThemWhateverComesAndGoesBesideThem) {
  struct held {
    buffer_ptr buffer;
    size_t bytes;
    uint8_t value;
  };
  // From the heap, at the bound, of which many, few and one fit a region, with a page half used.
  constexpr size_t kSizes[] = {1000,      kMinPictureBytes - 1, kMinPictureBytes, 345'600,
                               3'110'400, 12'441'600,           (32U << 20) - 1,  (32U << 20) + 1};
  std::mt19937 random(1);
  std::vector<held> all;
  for (int step = 0; step < 300; ++step) {
    if (all.size() < 12 || random() % 2 == 0) {
      const size_t bytes = kSizes[random() % std::size(kSizes)];
      held one{picture_of(bytes), bytes, static_cast<uint8_t>(random())};
      ASSERT_TRUE(one.buffer);
      gst_buffer_memset(one.buffer.get(), 0, one.value, bytes);
      all.push_back(std::move(one));
    } else {
      const auto gone = all.begin() + static_cast<std::ptrdiff_t>(random() % all.size());
      ASSERT_TRUE(is_all(gone->buffer, gone->bytes, gone->value)) << "step " << step;
      all.erase(gone);
    }
  }
  for (const held& one : all) EXPECT_TRUE(is_all(one.buffer, one.bytes, one.value)) << one.bytes;
  EXPECT_GT(picture_memory_bytes(), 0U);
  all.clear();
  EXPECT_EQ(picture_memory_bytes(), 0U) << "what is no longer used is the system's again";
}

TEST_F(PictureMemoryTest, HoldsToWhatElementsAskFor) {
  GstAllocationParams wanted;
  gst_allocation_params_init(&wanted);
  wanted.align = 63;
  wanted.prefix = 64;
  wanted.padding = 32;
  wanted.flags =
      static_cast<GstMemoryFlags>(GST_MEMORY_FLAG_ZERO_PREFIXED | GST_MEMORY_FLAG_ZERO_PADDED);
  constexpr size_t kBytes = 100'000;
  // The second one gets the memory of the first.
  for (const int value : {1, 2}) {
    const buffer_ptr buffer = picture_of(kBytes, &wanted);
    GstMapInfo mapped{};
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &mapped, GST_MAP_READWRITE));
    EXPECT_EQ(mapped.size, kBytes);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(mapped.data) % 64, 0U);
    for (size_t i = 1; i <= wanted.prefix; ++i) EXPECT_EQ(*(mapped.data - i), 0) << i;
    for (size_t i = 0; i < wanted.padding; ++i) EXPECT_EQ(mapped.data[kBytes + i], 0) << i;
    std::memset(mapped.data - wanted.prefix, value, kBytes + wanted.prefix + wanted.padding);
    gst_buffer_unmap(buffer.get(), &mapped);
  }
}

TEST_F(PictureMemoryTest, PartsAreReadInPlaceAndOutliveTheWhole) {
  constexpr size_t kBytes = 200'000;
  buffer_ptr whole = picture_of(kBytes);
  gst_buffer_memset(whole.get(), 0, 1, kBytes);
  gst_buffer_memset(whole.get(), 100'000, 7, 50'000);
  const buffer_ptr part(
      gst_buffer_copy_region(whole.get(), GST_BUFFER_COPY_MEMORY, 100'000, 80'000));
  const buffer_ptr inner(
      gst_buffer_copy_region(part.get(), GST_BUFFER_COPY_MEMORY, 10'000, 40'000));
  const size_t regions = picture_memory_bytes();
  whole.reset();
  EXPECT_EQ(picture_memory_bytes(), regions);
  EXPECT_TRUE(is_all(inner, 40'000, 7));
  // A copy of its own, for whom wants to write.
  const buffer_ptr copy(gst_buffer_copy_deep(inner.get()));
  EXPECT_TRUE(is_all(copy, 40'000, 7));
}

struct picture_counter : consumer {
  bool takes(form what) const override { return what == form::kPictures; }
  void on_picture(GstSample* sample, media_time, int) override {
    ++pictures;
    GstMemory* const memory = gst_buffer_peek_memory(gst_sample_get_buffer(sample), 0);
    if (gst_memory_is_type(memory, kPictureMemory) == FALSE) ++elsewhere;
  }
  std::atomic<int> pictures{0};
  std::atomic<int> elsewhere{0};
};

TEST_F(PictureMemoryTest, EveryDecoderMakesItsPicturesThere) {
  const std::pair<const char*, const char*> rows[] = {
      {"I420", "x264enc tune=zerolatency speed-preset=ultrafast"},
      // The pictures are then the converter's.
      {"Y42B", "x264enc tune=zerolatency speed-preset=ultrafast"},
      {"I420", "vp8enc deadline=1"},
      {"I420", "vp9enc deadline=1 cpu-used=8"},
  };
  for (const auto& [format, encoder] : rows) {
    const std::string what = std::string(format) + " " + encoder;
    std::string error;
    element_ptr bin = make_bin(
        std::string("videotestsrc num-buffers=8 ! video/x-raw,width=640,height=360,format=") +
            format + " ! " + encoder,
        error);
    ASSERT_TRUE(bin) << error;
    base::event_loop loop;
    const auto seen = std::make_shared<picture_counter>();
    const auto on_missing = [](const core_service::missing_medium& lost) {
      ADD_FAILURE() << lost.reason;
    };
    decode_graph graph(1, consumers({seen}), 1, now(), loop,
                       {[] {}, on_missing, [] {}, [&loop] { loop.stop(); },
                        [](const std::string& why) { ADD_FAILURE() << why; }});
    bin_feed feed(1, std::move(bin), true, loop, {});
    feed.start(
        {true, false},
        {[](kinds) {}, nullptr,
         [&graph](int track, const encoded_unit& unit) { graph.push(track, unit); }, [](int) {},
         nullptr, on_missing, [&graph](const std::string&) { graph.finish({}); }});
    loop.run(false);
    EXPECT_GT(seen->pictures, 0) << what;
    EXPECT_EQ(seen->elsewhere, 0) << what;
  }
}

}  // namespace
}  // namespace zelta::test
