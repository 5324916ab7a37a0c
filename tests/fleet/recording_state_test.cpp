// SPDX-License-Identifier: Apache-2.0
// What the store says of a job, written by workers of this and other versions.
#include "fleet/recording_state.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

using fleet::phase;
using fleet::recording_state;
using fleet::state_of;
using fleet::stretch;

TEST(RecordingState, ComesBackWholeInEachPhase) {
  recording_state all;
  all.id = "call-7";
  all.label = "gpu";
  all.channel = "grüße \"quoted\"\n🎥";
  all.since_utc_ms = 1'764'000'000'123;
  all.first_joined_utc_ms = 1'764'000'000'001;
  all.users = 3;
  all.files = uint64_t{1} << 40;
  all.losses = 5;
  all.tries = 2;
  all.sequence = uint64_t{1} << 50;
  all.reason = "why";
  stretch one;
  one.worker = "w1";
  one.folder = "/srv/call-7";
  one.sequence = uint64_t{1} << 53;
  one.delivered = 4;
  one.taken_utc_ms = 11;
  one.joined_utc_ms = 12;
  one.ended_utc_ms = 13;
  one.status = 5;
  one.reason = "it was killed";
  all.stretches = {one, stretch{}};
  for (const phase now : {phase::kWaiting, phase::kTaken, phase::kRecording, phase::kEnding,
                          phase::kEnded, phase::kFailed, phase::kRefused}) {
    all.now = now;
    std::string error;
    const auto back = state_of(all.text(), error);
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(back->text(), all.text());
    EXPECT_EQ(back->now, now);
    EXPECT_EQ(back->channel, all.channel);
    EXPECT_EQ(back->files, all.files);
    ASSERT_EQ(back->stretches.size(), 2U);
    EXPECT_EQ(back->stretches[0].sequence, one.sequence);
    EXPECT_EQ(back->stretches[0].status, 5);
    EXPECT_EQ(back->stretches[1].status, -1);
    EXPECT_EQ(is_over(now), now >= phase::kEnded) << name_of(now);
  }
}

TEST(RecordingState, KeepsTheLastTwoHundredStretches) {
  recording_state of;
  for (int at = 0; at < 1000; ++at) {
    of.stretches.emplace_back();
    of.stretches.back().worker = "w" + std::to_string(at);
  }
  std::string error;
  const auto back = state_of(of.text(), error);
  ASSERT_TRUE(back) << error;
  ASSERT_EQ(back->stretches.size(), 200U);
  EXPECT_EQ(back->stretches.front().worker, "w800");
  EXPECT_EQ(back->stretches.back().worker, "w999");
}

TEST(RecordingState, SaysWhyItCantBeRead) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"{", ""},
      {"[]", ""},
      {"{}", "\"\" is no state"},
      {R"({"state": "sleeping"})", "\"sleeping\" is no state"},
      {R"({"state": ")" + std::string(10'000, 'x') + "\"}", "is no state"},
      {R"({"state": 7})", "is no state"},
      {R"({"state": "ended", "users": 1e99})", ""},
      {R"({"state": "ended", "id": ["a"]})", ""},
      {R"({"state": "ended", "stretches": [7]})", ""},
      {R"({"state": "ended", "stretches": )" + std::string(100'000, '['), "stack"},
  };
  for (const auto& [text, says] : rows) {
    std::string error;
    EXPECT_FALSE(state_of(text, error)) << text.substr(0, 100);
    EXPECT_FALSE(error.empty()) << text.substr(0, 100);
    EXPECT_LT(error.size(), 400U);
    EXPECT_NE(error.find(says), std::string::npos) << error;
  }
  // A later version may know more; one that knows less has told less.
  std::string error;
  const auto other = state_of(R"({"state": "taken", "mood": "good"})", error);
  ASSERT_TRUE(other) << error;
  EXPECT_EQ(other->stretches.size(), 0U);
}

}  // namespace
}  // namespace zelta::test
