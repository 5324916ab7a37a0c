// SPDX-License-Identifier: Apache-2.0
// What a recording is said to have left in a folder that others record into.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "outcome.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

TEST(RecordedFiles, AreFaultyWhenTheyCannotBePlayed) {
  // Bytes, milliseconds, why it was closed, and its fault.
  const std::tuple<uint64_t, int64_t, const char*, const char*> rows[] = {
      {9, 9, "user left", ""},
      {0, 9, "user left", "empty"},
      {9, 0, "user left", "no media"},
      {9, 9, "", "killed"},
      {9, 9, "recorder died", "died"}};
  for (const auto& [bytes, duration_ms, closed, says] : rows) {
    const auto fault = record::fault_of({"1.mp4", 1, "h264", 1, duration_ms, bytes, closed});
    EXPECT_NE(fault.find(says), std::string::npos) << fault;
    EXPECT_EQ(fault.empty(), *says == '\0');
  }
}

TEST(RecordedFiles, AreThoseOfTheChannelInEveryManifest) {
  const TempDir dir;
  dir.file("1_a.mp4", "media");
  dir.file("recording.json", R"({"files": [
      {"name": "1_b.mp4", "channel_id": "room", "first_utc_ms": 9, "video_codec": "h264"},
      {"name": "2_c.mp4", "channel_id": "hall", "first_utc_ms": 1}]})");
  dir.file("recording_2.json", R"({"files": [
      {"name": "1_a.mp4", "channel_id": "room", "first_utc_ms": 5, "last_utc_ms": 75,
       "video_codec": "h264", "audio_codec": "aac", "closed": "user left"}],
      "missing": [{"uid": 7, "channel_id": "room", "medium": "video", "codec": "hevc",
                   "reason": "no decoder", "utc_ms": 3}, {"uid": 8, "channel_id": "hall"}]})");
  dir.file("recording_3.json", R"({"files": [{"name": "1_d.mp4")");
  dir.file("journal.json", R"({"files": [{"name": "1_e.mp4", "channel_id": "room"}]})");
  const auto all = record::read_recorded(dir.path(), "room");
  const auto& files = all.files;
  ASSERT_EQ(files.size(), 2U);
  EXPECT_EQ(files[0].name, "1_a.mp4");
  EXPECT_EQ(files[0].codecs, "h264+aac");
  EXPECT_EQ(files[0].bytes, 5U);
  EXPECT_EQ(files[0].closed, "user left");
  EXPECT_EQ(files[1].name, "1_b.mp4");
  const auto lines = record::losses(all, {}, "disk full", {});
  const std::vector<std::string> expected{"user 7, video (hevc): no decoder",
                                          "the mix: 1_b.mp4 is empty", "disk full"};
  EXPECT_EQ(lines, expected) << "somebody has taken 1_b.mp4 away";
  EXPECT_TRUE(record::losses(record::without(all, all), {}, "", {}).empty());
  EXPECT_TRUE(record::read_recorded("/nonexistent/", "room").files.empty());
}

}  // namespace
}  // namespace zelta::test
