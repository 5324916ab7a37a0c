// SPDX-License-Identifier: Apache-2.0
// What a recording is said to have left in a folder that others record into.
#include <gtest/gtest.h>

#include "recorded_files.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

TEST(RecordedFiles, AreThoseOfTheChannelInEveryManifest) {
  const TempDir dir;
  dir.file("1_a.mp4", "media");
  dir.file("recording.json", R"({"files": [
      {"name": "1_b.mp4", "channel_id": "room", "first_utc_ms": 9, "video_codec": "h264"},
      {"name": "2_c.mp4", "channel_id": "hall", "first_utc_ms": 1}]})");
  dir.file("recording_2.json", R"({"files": [
      {"name": "1_a.mp4", "channel_id": "room", "first_utc_ms": 5, "duration_ms": 70,
       "video_codec": "h264", "audio_codec": "aac", "closed": "user left"}]})");
  dir.file("recording_3.json", R"({"files": [{"name": "1_d.mp4")");
  dir.file("journal.json", R"({"files": [{"name": "1_e.mp4", "channel_id": "room"}]})");
  const auto files = record::recorded_files(dir.path(), "room");
  ASSERT_EQ(files.size(), 2U);
  EXPECT_EQ(files[0].name, "1_a.mp4");
  EXPECT_EQ(files[0].codecs, "h264+aac");
  EXPECT_EQ(files[0].bytes, 5U);
  EXPECT_EQ(files[0].closed, "user left");
  EXPECT_EQ(files[1].name, "1_b.mp4");
  EXPECT_EQ(files[1].bytes, 0U) << "somebody has taken it away";
  EXPECT_TRUE(record::recorded_files("/nonexistent/", "room").empty());
}

}  // namespace
}  // namespace zelta::test
