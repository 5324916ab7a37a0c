// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/layer_choice.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::media::encoded_unit;
using core_service::media::media_time;
using core_service::media::stream_format;
using core_service::rtp::layer_choice;

// A unit of a layer whose pictures are so wide, and what becomes of it: "t", "l" or "k".
struct step {
  int layer;
  int width;
  media_time time;
  bool key;
  const char* is;
};

encoded_unit unit_of(const step& one) {
  auto format = std::make_shared<stream_format>();
  format->width = one.width;
  format->height = one.width / 2;
  encoded_unit unit;
  unit.format = std::move(format);
  unit.time = unit.decode_time = one.time;
  unit.key = one.key;
  return unit;
}

TEST(LayerChoiceTest, BestThatComesIsRecordedFromAKeyFrameOn) {
  struct row {
    const char* name;
    bool smallest;
    std::vector<step> steps;
  };
  const std::vector<row> rows = {
      {"grows when a larger one can begin",
       false,
       {{1, 320, 0ms, true, "t"},
        {2, 640, 33ms, false, "k"},
        {1, 320, 33ms, false, "t"},
        {2, 640, 66ms, true, "t"},
        {1, 320, 100ms, true, "l"},
        {2, 640, 100ms, false, "t"}}},
      {"the smallest is wanted",
       true,
       {{2, 640, 0ms, true, "t"}, {1, 320, 33ms, true, "t"}, {2, 640, 66ms, true, "l"}}},
      {"one that has stopped gives way, at a key frame",
       false,
       {{2, 640, 0ms, true, "t"},
        {1, 320, 10ms, true, "l"},
        {1, 320, 20ms, false, "l"},
        {1, 320, 30ms, false, "l"},
        {1, 320, 40ms, false, "l"},
        {1, 320, 50ms, false, "l"},
        {1, 320, 60ms, false, "l"},
        {1, 320, 70ms, false, "l"},
        {1, 320, 80ms, false, "l"},
        {1, 320, 90ms, false, "l"},
        {1, 320, 500ms, true, "l"},
        {1, 320, 501ms, false, "k"},
        {1, 320, 534ms, true, "t"},
        {2, 640, 600ms, false, "k"}}},
      {"one that sends few pictures hasn't stopped",
       false,
       {{2, 640, 0ms, true, "t"}, {1, 320, 1000ms, true, "l"}, {2, 640, 1001ms, false, "t"}}},
      {"nothing is recorded before a key frame",
       false,
       {{2, 640, 0ms, false, "k"}, {1, 320, 0ms, true, "t"}}},
      {"a larger picture of the same layer is no other layer",
       false,
       {{1, 320, 0ms, true, "t"}, {1, 640, 33ms, true, "t"}, {2, 480, 66ms, true, "l"}}},
  };
  for (const row& one : rows) {
    SCOPED_TRACE(one.name);
    layer_choice choice(one.smallest, 0ms);
    std::string got;
    std::string wanted;
    for (const step& next : one.steps) {
      encoded_unit unit = unit_of(next);
      got += "tlk"[static_cast<int>(choice.look(next.layer, unit))];
      wanted += next.is;
    }
    EXPECT_EQ(got, wanted);
  }
}

TEST(LayerChoiceTest, TimesDoNotGoBackWhereTheLayerChanges) {
  layer_choice choice(false, 0ms);
  const std::pair<step, media_time> rows[] = {{{1, 320, 100ms, true, ""}, 100ms},
                                              {{1, 320, 140ms, false, ""}, 140ms},
                                              {{2, 640, 98ms, true, ""}, 141ms},
                                              {{2, 640, 138ms, false, ""}, 142ms},
                                              {{2, 640, 178ms, false, ""}, 178ms}};
  for (const auto& [next, time] : rows) {
    encoded_unit unit = unit_of(next);
    unit.decode_time -= 2ms;
    ASSERT_EQ(choice.look(next.layer, unit), layer_choice::verdict::kTaken);
    EXPECT_EQ(unit.time, time);
    EXPECT_EQ(unit.decode_time, time - 2ms);
  }
}

TEST(LayerChoiceTest, LayerThatHasEndedLeavesItsPlace) {
  layer_choice choice(false, 0ms);
  encoded_unit large = unit_of({2, 640, 0ms, true, ""});
  encoded_unit small = unit_of({1, 320, 10ms, true, ""});
  ASSERT_EQ(choice.look(2, large), layer_choice::verdict::kTaken);
  choice.ended(2);
  EXPECT_EQ(choice.look(1, small), layer_choice::verdict::kTaken);
}

}  // namespace
}  // namespace zelta::test
