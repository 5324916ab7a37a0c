// SPDX-License-Identifier: Apache-2.0
// The recorder's command line, and what it writes down of its files.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include "base/unique_fd.h"
#include "core_service/folder/manifest.h"
#include "core_service/task/options.h"
#include "support/read_json.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::manifest;
using core_service::manifest_file;
using core_service::state_writer;

// ---- Options -------------------------------------------------------------------------------

TEST(RecorderOptions, TakeTheEnginesCommandLine) {
  const char* const argv[] = {"ZeltaCoreService",
                              "--app_id",
                              "a",
                              "--channel_key",
                              "-k",
                              "--channel_id",
                              "room",
                              "--uid",
                              "4294967295",
                              "--mix",
                              "1",
                              "--enabledModules",
                              "-1",
                              "--proxy_server",
                              "",
                              "--vocs_port",
                              "-1",
                              "--recording_file_dir",
                              "/x/",
                              "--read",
                              "3",
                              "--write",
                              "4",
                              "--recoveryid",
                              "2",
                              "--recoverytime",
                              "123456789012",
                              "--novelty",
                              "1"};
  const auto parsed = core_service::option_parser().parse(std::size(argv), argv);
  ASSERT_TRUE(parsed.values) << parsed.message;
  EXPECT_EQ(parsed.values->channel_key, "-k");
  EXPECT_EQ(parsed.values->uid, 4294967295U);
  EXPECT_EQ(parsed.values->enabled_modules, -1);
  EXPECT_EQ(parsed.values->recovery_id, 2);
  EXPECT_EQ(parsed.values->recovery_time, 123456789012);
  EXPECT_EQ(parsed.values->write_fd, 4);
  EXPECT_EQ(parsed.values->unknown, (std::vector<std::string>{"--novelty", "1"}));
}

TEST(RecorderOptions, LastOfTwoCommandLinesWinsAndBadValuesAreNamed) {
  const char* const twice[] = {"p", "--channel_id", "a", "p", "--channel_id", "b"};
  core_service::option_parser parser;
  EXPECT_EQ(parser.parse(std::size(twice), twice).values->channel_id, "b");
  const char* const bad[] = {"p", "--channel_id", "a", "--uid", "7", "--idle", "soon"};
  const auto refused = parser.parse(std::size(bad), bad);
  EXPECT_FALSE(refused.values);
  EXPECT_NE(refused.message.find("soon"), std::string::npos);
  // Nothing of an earlier command line is left for the next.
  const char* const plain[] = {"p", "--channel_id", "c"};
  const auto last = parser.parse(std::size(plain), plain);
  ASSERT_TRUE(last.values) << last.message;
  EXPECT_EQ(last.values->uid, 0U);
  EXPECT_TRUE(last.values->unknown.empty());
}

// ---- Manifest ------------------------------------------------------------------------------

TEST(Manifest, SuccessorClosesWhatItsPredecessorWrote) {
  const TempDir dir;
  state_writer writer(nullptr);
  {
    manifest first(dir.path(), "recording.json", "room", writer);
    manifest_file file;
    file.name = "1_x.mp4";
    file.uid = 1;
    file.first_utc_ms = 1000;
    file.last_utc_ms = 3500;
    file.width = 1920;
    file.height = 1080;
    file.kind = "video";
    file.video_codec = "h264";
    file.audio_codec = "opus";
    first.add(file);
    first.at(first.add(manifest_file())).closed = "user left";
    EXPECT_TRUE(first.note_missing(1, {"video", "dirac", "why"}));
    EXPECT_FALSE(first.note_missing(1, {"video", "dirac", "why"})) << "each reason once";
    first.save();
    EXPECT_EQ(writer.flush(10s), 0);
  }
  manifest second(dir.path(), "recording.json", "hall", writer);
  second.remove(second.add(manifest_file()));
  second.at(second.add(manifest_file())).name = "new";
  EXPECT_TRUE(second.note_missing(1, {"video", "dirac", "why"})) << "in this session too";
  second.save();
  EXPECT_EQ(writer.flush(10s), 0);
  const Json::Value missing = read_json(dir.path() + "recording.json")["missing"];
  ASSERT_EQ(missing.size(), 2U);
  EXPECT_EQ(missing[0]["channel_id"].asString(), "room");
  EXPECT_EQ(missing[1]["codec"].asString(), "dirac");
  manifest of_hall(dir.path(), "recording.json", "hall", writer);
  of_hall.adopt_leftovers();
  EXPECT_FALSE(of_hall.note_missing(1, {"video", "dirac", "why"})) << "its predecessor told that";
  manifest of_room(dir.path(), "recording.json", "room", writer);
  of_room.adopt_leftovers();
  EXPECT_TRUE(of_room.note_missing(1, {"video", "dirac", "why"})) << "told by an earlier session";
  for (uint32_t uid = 2; uid < 2500; ++uid) of_room.note_missing(uid, {"all", "", "why"});
  EXPECT_FALSE(of_room.note_missing(2499, {"all", "", "why"})) << "though it isn't listed any more";
  of_room.save();
  EXPECT_EQ(writer.flush(10s), 0);
  EXPECT_EQ(read_json(dir.path() + "recording.json")["missing"].size(), 1U + 1000U);
  const Json::Value files = read_json(dir.path() + "recording.json")["files"];
  ASSERT_EQ(files.size(), 3U);
  EXPECT_EQ(files[0]["closed"].asString(), "recorder died");
  EXPECT_EQ(files[0]["duration_ms"].asInt(), 2500);
  EXPECT_EQ(files[0]["width"].asInt(), 1920);
  EXPECT_EQ(files[0]["height"].asInt(), 1080);
  EXPECT_EQ(files[0]["kind"].asString() + files[0]["video_codec"].asString() +
                files[0]["audio_codec"].asString(),
            "videoh264opus");
  EXPECT_EQ(files[1]["closed"].asString(), "user left");
  EXPECT_EQ(files[1]["channel_id"].asString(), "room");
  EXPECT_EQ(files[2]["name"].asString(), "new");
  EXPECT_EQ(files[2]["channel_id"].asString(), "hall");
}

TEST(Manifest, ChangedRowsAreSavedOnceAndWhatIsOverSaysWhen) {
  const TempDir dir;
  const std::string path = dir.path() + "recording.json";
  state_writer writer([](const std::string&, int) {});
  manifest first(dir.path(), "recording.json", "room", writer);
  first.save_changes();
  writer.flush(2s);
  EXPECT_FALSE(std::filesystem::exists(path)) << "nothing has changed";
  ASSERT_TRUE(first.note_missing(7, {"all", "", "full"}));
  EXPECT_FALSE(first.note_missing(7, {"all", "", "full"})) << "known";
  first.count_lost_packets(7, 3);
  first.changed();
  first.save_changes();
  writer.flush(2s);
  Json::Value saved = read_json(path);
  EXPECT_FALSE(saved["missing"][0].isMember("until_utc_ms"));
  EXPECT_EQ(saved["dropped_frames"]["pictures"], 0);
  std::filesystem::remove(path);
  first.save_changes();
  writer.flush(2s);
  EXPECT_FALSE(std::filesystem::exists(path)) << "once";
  first.end_missing(7, "all");
  EXPECT_TRUE(first.note_missing(7, {"all", "", "full"})) << "it has come again";
  first.end_missing(8, "all");
  EXPECT_EQ(first.all_lost_packets(), 3U);
  first.save_changes();
  writer.flush(2s);
  saved = read_json(path);
  ASSERT_EQ(saved["missing"].size(), 2U);
  EXPECT_GE(saved["missing"][0]["until_utc_ms"].asInt64(), saved["missing"][0]["utc_ms"].asInt64());
  EXPECT_FALSE(saved["missing"][1].isMember("until_utc_ms"));
}

TEST(Manifest, UnreadableOneIsKeptAside) {
  const TempDir dir;
  state_writer writer(nullptr);
  for (const char* broken : {"{\"files\":", "{\"files\":[5]}", "[1]"}) {
    dir.file("recording.json", broken);
    manifest fresh(dir.path(), "recording.json", "room", writer);
    fresh.save();
    EXPECT_EQ(writer.flush(10s), 0);
    EXPECT_EQ(read_file(dir.path() + "recording.json.broken"), broken);
    EXPECT_EQ(read_json(dir.path() + "recording.json")["files"].size(), 0U);
    EXPECT_NE(read_file(dir.path() + "recording_engine.log").find(" error core_service"),
              std::string::npos);
  }
  manifest nowhere("/nonexistent/", "recording.json", "room", writer);
  nowhere.save();
  EXPECT_EQ(writer.flush(10s), ENOENT);
}

TEST(Manifest, SuccessorFindsWhatWasNotWrittenDownAndDropsWhatIsEmpty) {
  const TempDir dir;
  const auto in_manifest = [](const char* name) {
    manifest_file file;
    file.name = name;
    return file;
  };
  state_writer writer(nullptr);
  {
    manifest died(dir.path(), "recording.json", "room", writer);
    died.add(in_manifest("1_20260131T235959000.mp4"));
    died.add(in_manifest("2_20260131T235959000.mp4"));
    died.add(in_manifest("moved_away_meanwhile.mp4"));
    died.save();
    EXPECT_EQ(writer.flush(10s), 0);
  }
  dir.file("1_20260131T235959000.mp4", "media");
  dir.file("2_20260131T235959000.mp4", "");
  dir.file("4294967295_20260131T235959123.m4a", "media");
  dir.file("mix_20260131T235959124.webm", "media");
  dir.file("3_20260131T235959123.mp4", "");
  const base::unique_fd other_recorder(
      open(dir.file("6_20260131T235959123.mp4", "").c_str(), O_WRONLY | O_CLOEXEC));
  for (const char* foreign : {"notes.mp4", "4_2026.mp4", "5_20260131T235959123.jpg"}) {
    dir.file(foreign, "");
  }
  dir.file("7_20260131T235959000.mp4", "media");
  dir.file("recording_2.json", R"({"files": [{"name": "7_20260131T235959000.mp4"}]})");
  dir.file("recording_3.json", "[");
  dir.file("8_20260131T235959000.mp4", "media");
  dir.file("notes.json", R"({"files": [{"name": "8_20260131T235959000.mp4"}]})");
  manifest successor(dir.path(), "recording.json", "room", writer);
  successor.adopt_leftovers();
  successor.save();
  EXPECT_EQ(writer.flush(10s), 0);
  std::map<std::string, Json::Value> files;
  const Json::Value written = read_json(dir.path() + "recording.json")["files"];
  for (const Json::Value& file : written) {
    EXPECT_EQ(file["closed"].asString(), "recorder died");
    files[file["name"].asString()] = file;
  }
  ASSERT_EQ(files.size(), 5U);
  EXPECT_EQ(files.count("8_20260131T235959000.mp4"), 1U) << "only manifests say whose a file is";
  EXPECT_EQ(files.count("1_20260131T235959000.mp4"), 1U);
  EXPECT_EQ(files.count("moved_away_meanwhile.mp4"), 1U);
  const Json::Value& found = files["4294967295_20260131T235959123.m4a"];
  EXPECT_EQ(found["uid"].asUInt(), 4294967295U);
  EXPECT_EQ(found["kind"].asString(), "audio");
  EXPECT_EQ(found["first_utc_ms"].asInt64(), 1769903999123);
  EXPECT_GT(found["duration_ms"].asInt64(), 0) << "until it was written to last";
  EXPECT_EQ(files["mix_20260131T235959124.webm"]["uid"].asUInt(), 0U);
  for (const char* gone : {"2_20260131T235959000.mp4", "3_20260131T235959123.mp4"}) {
    EXPECT_FALSE(std::filesystem::exists(dir.path() + gone)) << gone;
  }
  for (const char* kept : {"notes.mp4", "6_20260131T235959123.mp4"}) {
    EXPECT_TRUE(std::filesystem::exists(dir.path() + kept)) << kept;
  }
}

TEST(StateWriter, NobodyWaitsForASlowDiskAndTheLatestTextWins) {
  const TempDir dir;
  std::map<std::string, int> failures;
  std::mutex failures_lock;
  state_writer writer([&](const std::string& path, int error) {
    const std::lock_guard<std::mutex> guard(failures_lock);
    failures[path] = error;
  });
  // Opening it takes until somebody reads, as a disk does that hangs.
  const std::string pipe = dir.path() + "state.new";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  writer.replace(dir.path() + "state", "one");
  EXPECT_EQ(writer.flush(50ms), ETIMEDOUT);
  writer.replace(dir.path() + "state", "two");
  writer.replace(dir.path() + "state", "three");
  EXPECT_EQ(read_file(pipe), "one");
  // A pipe can't be synced.
  EXPECT_EQ(writer.flush(10s), EINVAL);
  EXPECT_EQ(writer.flush(10s), 0) << "a failure is told once";
  EXPECT_EQ(read_file(dir.path() + "state"), "three");
  const std::lock_guard<std::mutex> guard(failures_lock);
  EXPECT_EQ(failures, (std::map<std::string, int>{{dir.path() + "state", EINVAL}}));
}

}  // namespace
}  // namespace zelta::test
