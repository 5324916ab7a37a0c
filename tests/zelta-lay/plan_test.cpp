// SPDX-License-Identifier: Apache-2.0
// What is decided before any media is read: who stands where and when, and what is refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "composer.h"
#include "edit_lists.h"
#include "exit_status.h"
#include "options.h"
#include "session.h"
#include "support/temp_dir.h"
#include "tiles.h"
#include "time_point.h"
#include "turns.h"

namespace zelta::lay {
namespace {

recordings::media_file file(const char* name, uint32_t uid, int64_t first_ms, int64_t last_ms) {
  recordings::media_file made;
  made.name = name;
  made.channel_id = "c";
  made.uid = uid;
  made.video_codec = "h264";
  made.audio_codec = "opus";
  made.width = 640;
  made.height = 360;
  made.first_utc_ms = 1000000 + first_ms;
  made.last_utc_ms = 1000000 + last_ms;
  made.closed = "user left";
  made.bytes = 1;
  return made;
}

session arranged(const std::vector<recordings::media_file>& files) {
  recordings::manifest m;
  m.files = files;
  m.names[2] = "Ada";
  std::string error;
  auto made = arrange({m}, "/r", "", error);
  EXPECT_TRUE(made) << error;
  return made ? *made : session{};
}

TEST(Session, StandsOnOneTimelineWhateverTheOrderOfFiles) {
  const session s = arranged({file("b", 2, 5000, 9000), file("mix", 0, 0, 90000),
                              file("a2", 1, 4000, 6000), file("a1", 1, 2000, 4500)});
  ASSERT_EQ(s.users.size(), 2U);
  EXPECT_EQ(s.zero_utc_us, 1002000000);
  EXPECT_EQ(s.length_us, 7000000);
  const std::vector<stretch>& first = s.users[0].stretches;
  ASSERT_EQ(first.size(), 2U);
  EXPECT_EQ(first[0].path, "/r/a1");
  EXPECT_EQ(first[0].end_us, 2000000) << "a file ends where the next one of its user begins";
  EXPECT_EQ(first[1].begin_us, 2000000);
  EXPECT_EQ(s.users[0].name, "1");
  EXPECT_EQ(s.users[1].name, "Ada");
}

TEST(Session, KnowsWhoseFilesItCantLay) {
  recordings::manifest m;
  m.files = {file("a", 1, 0, 1000), file("gone", 2, 0, 1000), file("other", 3, 0, 1000)};
  m.files[1].bytes = 0;
  std::string error;
  const auto all = arrange({m}, "/r", "", error);
  ASSERT_TRUE(all);
  EXPECT_TRUE(all->find(1)->missing.empty());
  ASSERT_EQ(all->find(2)->missing.size(), 1U);
  EXPECT_EQ(all->find(2)->missing[0].line, "gone of user 2 is missing or empty");
  m.files[2].channel_id = "d";
  for (const char* channel : {"", "e"}) {
    EXPECT_FALSE(arrange({m}, "/r", channel, error));
    EXPECT_NE(error.find("\"c\", \"d\""), std::string::npos) << error;
  }
  const auto chosen = arrange({m}, "/r", "d", error);
  ASSERT_TRUE(chosen);
  EXPECT_EQ(chosen->users.size(), 1U);
  EXPECT_EQ(chosen->users[0].uid, 3U);
}

TEST(Session, LeavesOutTimesThatCantBe) {
  constexpr int64_t kMost = INT64_MAX;
  constexpr int64_t kLeast = INT64_MIN;
  constexpr int64_t kMonth = int64_t{31} * 24 * 3600 * 1000;
  const int64_t rows[][2] = {
      {0, 5},         {-7, 5},       {kLeast, kMost},     {kMost, kMost},       {2000, 1000},
      {1000, kLeast}, {1000, kMost}, {kMost - 1, kLeast}, {1000, kMonth + 1001}};
  for (const auto& row : rows) {
    recordings::manifest m;
    m.files = {file("a", 1, 0, 1000), file("b", 2, 0, 0)};
    m.files[1].first_utc_ms = row[0];
    m.files[1].last_utc_ms = row[1];
    std::string error;
    const auto made = arrange({m}, "/r", "", error);
    ASSERT_TRUE(made) << error;
    EXPECT_EQ(made->length_us, 1000000) << row[0];
    EXPECT_EQ(made->zero_utc_us, 1000000000) << row[0];
    ASSERT_EQ(made->find(2)->missing.size(), 1U) << row[0];
  }
}

TEST(Session, KnowsNamesOfOtherSessions) {
  recordings::manifest first;
  first.channel_id = "c";
  first.files = {file("a", 1, 0, 1000)};
  recordings::manifest second = first;
  second.files = {file("b", 1, 2000, 3000)};
  second.names[1] = "Ada";
  std::string error;
  const auto made = arrange({first, second}, "/r", "", error);
  ASSERT_TRUE(made) << error;
  EXPECT_EQ(made->users[0].name, "Ada");
}

TEST(Tiles, CoverThePictureWithoutOverlap) {
  for (uint32_t count = 1; count <= 50; ++count) {
    std::vector<uint32_t> users;
    for (uint32_t uid = 1; uid <= count; ++uid) users.push_back(uid);
    for (const auto& tiles : {grid_tiles(users, 1278, 718), side_by_side_tiles(users, 1278, 718),
                              speaker_tiles(users, count, 1278, 718)}) {
      ASSERT_EQ(tiles.size(), count);
      EXPECT_FALSE(tiles_overlap(tiles)) << count;
      for (const tile& t : tiles) {
        EXPECT_TRUE(t.width >= 2 && t.height >= 2 && t.x >= 0 && t.y >= 0 &&
                    t.x + t.width <= 1278 && t.y + t.height <= 718)
            << count;
        EXPECT_EQ((t.x | t.y | t.width | t.height) & 1, 0) << count;
      }
    }
  }
  EXPECT_EQ(speaker_tiles({1, 2, 3}, 2, 1280, 720)[0].uid, 2U);
  EXPECT_EQ(speaker_tiles({7}, 7, 1280, 720)[0].height, 720);
  EXPECT_EQ(grid_tiles({1, 2, 3}, 1280, 720)[2].x, 320) << "the last row stands in the middle";
}

// Levels of two users a tenth of a second, in stretches of so many tenths.
struct talk {
  int tenths;
  float first_db;
  float second_db;
  bool first_there = true;
};

std::vector<turn> turns_of(const std::vector<talk>& talks) {
  std::vector<levels> of(2);
  of[0].uid = 1;
  of[1].uid = 2;
  for (const talk& t : talks) {
    for (int i = 0; i < t.tenths; ++i) {
      of[0].db.push_back(t.first_db);
      of[1].db.push_back(t.second_db);
      of[0].there.push_back(t.first_there);
      of[1].there.push_back(true);
    }
  }
  return find_turns(of, 0);
}

TEST(Turns, FollowWhoSpeaksAndNotWhoCoughs) {
  const struct {
    const char* situation;
    std::vector<talk> talks;
    std::vector<turn> expected;
  } rows[] = {
      {"nobody speaks", {{50, -90, -90}}, {{0, 1}}},
      {"another speaks", {{30, -20, -90}, {50, -90, -20}}, {{0, 1}, {3800000, 2}}},
      {"a cough", {{30, -20, -90}, {4, -20, -5}, {30, -20, -90}}, {{0, 1}}},
      {"noise that is no speech", {{30, -20, -90}, {80, -90, -50}}, {{0, 1}}},
      {"both as loud", {{30, -20, -90}, {80, -20, -17}}, {{0, 1}}},
      {"a pause between words", {{30, -20, -40}, {6, -90, -40}, {30, -20, -40}}, {{0, 1}}},
      {"the speaker leaves", {{30, -20, -90}, {30, -90, -90, false}}, {{0, 1}, {3000000, 2}}},
      {"soon after the last change", {{5, -20, -90}, {30, -90, -15}}, {{0, 1}, {2000000, 2}}},
  };
  for (const auto& row : rows) EXPECT_EQ(turns_of(row.talks), row.expected) << row.situation;
}

TEST(Time, IsTakenAsPeopleWriteIt) {
  const struct {
    const char* text;
    int64_t us;  // -1: refused
  } rows[] = {{"90", 90000000},
              {"0.25", 250000},
              {"1:30.5", 90500000},
              {"1:02:03", 3723000000},
              {"1970-01-01T00:01:00Z", 50000000},
              {"1970-01-01T00:01:00.5Z", 50500000},
              {"2026-02-31T00:00:00Z", -1},
              {"2026-01-31T00:00:00", -1},
              {"-5", -1},
              {"1:2:3:4", -1},
              {"soon", -1},
              {"", -1}};
  for (const auto& row : rows) {
    EXPECT_EQ(parse_time(row.text, 10000000).value_or(-1), row.us) << row.text;
  }
  EXPECT_EQ(time_text(3723004000), "1:02:03.004");
}

TEST(Tiles, AreLeftOutWhereTheyHaveNoRoom) {
  std::vector<uint32_t> users;
  for (uint32_t uid = 1; uid <= 5000; ++uid) users.push_back(uid);
  for (const auto& tiles : {grid_tiles(users, 64, 64), side_by_side_tiles(users, 64, 64),
                            speaker_tiles(users, 1, 64, 64)}) {
    for (const tile& t : tiles) EXPECT_TRUE(t.width >= 2 && t.height >= 2);
  }
}

TEST(Tiles, AreThoseOfALayoutFileWithinTheFilm) {
  const test::TempDir dir;
  const std::string path = dir.file("layout.json", R"({"backgroundColor": "#20a0fF", "regions": [
    {"uid": 7, "x": 0.25, "y": 0.5, "width": 0.5, "height": 0.25, "renderMode": "fill"},
    {"uid": 8, "x": 0.75, "y": 0.75, "width": 1, "height": 1, "alpha": 0.5, "renderMode": "fit"},
    {"uid": 9, "x": 0, "y": 0, "width": 0.001, "height": 1}]})");
  std::string error;
  const auto made = file_layout(path, 640, 360, error);
  ASSERT_TRUE(made) << error;
  EXPECT_EQ(made->background, (std::array<uint8_t, 3>{0x20, 0xa0, 0xff}));
  EXPECT_EQ(made->tiles, (std::vector<tile>{{7, 160, 180, 320, 90, true, 1},
                                            {8, 480, 270, 160, 90, false, 0.5}}))
      << "what is left of the film is cut off, and what can't be seen left out";
  EXPECT_EQ(file_layout(dir.file("none.json", R"({"regions": []})"), 2, 2, error)->background,
            (std::array<uint8_t, 3>{0, 0, 0}));
  EXPECT_FALSE(file_layout(dir.file("bad.json", R"({"regions": 7})"), 640, 360, error));
  EXPECT_NE(error.find("\"regions\" should be an array"), std::string::npos) << error;
}

// Of files that aren't there, so that what is decoded is told.
TEST(Turns, DecodeOnlyWhoseVolumesNobodyNoted) {
  const session s =
      arranged({file("a", 1, 0, 2000), file("b", 2, 0, 1000), file("b2", 2, 1000, 2000)});
  recordings::volume_lines noted;
  noted[1] = {{1000000, 200, {255, 0, 0, 0, 26}}};
  noted[2] = {{1001200, 200, {255}}};
  problems found;
  int64_t heard_us = 0;
  const auto got = measure_levels(s, noted, {500000, 2000000}, found,
                                  [&](int64_t done_us, int64_t) { heard_us = done_us; });
  ASSERT_EQ(got.size(), 2U);
  ASSERT_EQ(got[0].db.size(), 15U);
  EXPECT_EQ(got[0].db[0], kSilence);
  EXPECT_NEAR(got[0].db[3], -22.8F, 0.1F) << "a tenth of full scale, from 0.8 s to 1.0 s";
  EXPECT_NEAR(got[0].db[4], -22.8F, 0.1F);
  EXPECT_EQ(got[0].db[5], kSilence);
  EXPECT_NEAR(got[1].db[7], -3, 0.1F);
  EXPECT_GT(heard_us, 1500000) << "the second user's first file is listened to";
  ASSERT_EQ(found.lines().size(), 1U);
  EXPECT_EQ(found.lines()[0].rfind("b, sound", 0), 0U) << found.lines()[0];
}

TEST(EditLists, CutWhereTheTurnsAre) {
  const session s = arranged(
      {file("a.mp4", 1, 0, 4000), file("a2.mp4", 1, 4000, 9000), file("b.mp4", 2, 1000, 9000)});
  EXPECT_EQ(edit_decision_list(s, {{2000000, 1}, {5000000, 2}}, {2000000, 8000000}, 25).text,
            "TITLE: c\nFCM: NON-DROP FRAME\n"
            "\n001  AX       B     C        00:00:02:00 00:00:04:00 00:00:00:00 00:00:02:00\n"
            "* FROM CLIP NAME: a.mp4\n"
            "\n002  AX       B     C        00:00:00:00 00:00:01:00 00:00:02:00 00:00:03:00\n"
            "* FROM CLIP NAME: a2.mp4\n"
            "\n003  AX       B     C        00:00:04:00 00:00:07:00 00:00:03:00 00:00:06:00\n"
            "* FROM CLIP NAME: b.mp4\n");
}

TEST(EditLists, CountTheirEventsAndHoldNoOthersLines) {
  session s = arranged({file("a\n001", 1, 0, 400000), file("b", 2, 0, 400000)});
  s.channel_id = "c\r\n* \x1b\xc2\x9b";
  std::vector<turn> turns;
  for (uint32_t i = 0; i < 1200; ++i) turns.push_back({int64_t{i} * 100000, 1 + i % 2});
  const edit_list list = edit_decision_list(s, turns, {0, 120000000}, 25);
  EXPECT_EQ(list.events, 1200);
  EXPECT_EQ(list.text.rfind("TITLE: c  *    \nFCM", 0), 0U) << list.text.substr(0, 40);
  EXPECT_EQ(std::count(list.text.begin(), list.text.end(), '\n'), 2 + 3 * 1200);
}

// "gap 25, clip a.mp4 0+50" of a track.
std::string children_of(const Json::Value& track) {
  std::string made;
  for (const Json::Value& child : track["children"]) {
    const Json::Value& range = child["source_range"];
    made += child["OTIO_SCHEMA"].asString() + " " + child["name"].asString() + " " +
            std::to_string(range["start_time"]["value"].asInt()) + "+" +
            std::to_string(range["duration"]["value"].asInt()) + "; ";
  }
  return made;
}

TEST(EditLists, TimelineHasEveryUserWithTheirGaps) {
  std::vector<recordings::media_file> files = {
      file("a b.mp4", 1, 0, 4000), file("b.mp4", 2, 1000, 3000), file("b2.m4a", 2, 5000, 9000)};
  files[2].video_codec.clear();
  const session s = arranged(files);
  std::istringstream text(open_timeline(s, {0, s.length_us}, 25));
  Json::Value root;
  text >> root;
  const Json::Value& tracks = root["tracks"]["children"];
  ASSERT_EQ(tracks.size(), 4U);
  EXPECT_EQ(tracks[1]["kind"], "Video");
  EXPECT_EQ(children_of(tracks[1]), "Gap.1  0+25; Clip.1 b.mp4 0+50; ");
  EXPECT_EQ(tracks[3]["kind"], "Audio");
  EXPECT_EQ(children_of(tracks[3]),
            "Gap.1  0+25; Clip.1 b.mp4 0+50; Gap.1  0+50; Clip.1 b2.m4a 0+100; ");
  EXPECT_EQ(tracks[0]["children"][0]["media_reference"]["target_url"], "file:///r/a%20b.mp4");
}

TEST(Options, RefuseWhatContradictsItselfAndSayWhatWouldBeRight) {
  const struct {
    std::vector<const char*> arguments;
    const char* words;
  } rows[] = {
      {{"folder"}, "-o FILE"},
      {{"folder", "-o", "a.avi"}, ".mp4, .mov, .mkv"},
      {{"folder", "-o", "a.m4a"}, "--audio-only"},
      {{"folder", "-o", "a.mp4", "--size", "1281x720"}, "1280x720"},
      {{"folder", "-o", "a.mp4", "--size", "x720"}, "1280x720"},
      {{"folder", "-o", "a.mp4", "--fps", "0"}, "1 to 120"},
      {{"folder", "-o", "a.mp4", "--audio-only", "--names"}, "--names"},
      {{"folder", "-o", "a.mp4", "--track", "-1"}, "--track"},
      {{"folder", "-o", "a.mp4", "--track", "1", "--layout", "speaker"}, "--track for one"},
      {{"folder", "--edl", "a.edl"}, "--layout speaker"},
      {{"folder", "--otio", "a", "--names"}, "add -o"},
      {{"folder", "--otio", "a", "--audio-only"}, "add -o"},
      {{"folder", "--otio", "a", "--layout", "speaker"}, "--layout is for a film"},
      {{"folder", "--otio", "a", "--size", "640x360"}, "--size"},
      {{"folder", "-o", "a.mp4", "--track", "1", "--size", "640x360"}, "--track keeps"},
      {{"folder", "-o", "a.m4a", "--audio-only", "--fps", "30"}, "--fps"},
      {{"folder", "-o", "a.m4a", "--audio-only", "--layout", "speaker"}, "--layout is for a film"},
  };
  for (const auto& row : rows) {
    std::vector<const char*> all = {"zelta-lay"};
    all.insert(all.end(), row.arguments.begin(), row.arguments.end());
    options o;
    const parse_result got = parse_options(static_cast<int>(all.size()), all.data(), o);
    EXPECT_FALSE(got.ok) << row.words;
    EXPECT_EQ(got.exit_status, kUsage);
    EXPECT_NE(got.message.find(row.words), std::string::npos) << got.message;
  }
}

}  // namespace
}  // namespace zelta::lay
