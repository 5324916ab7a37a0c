// SPDX-License-Identifier: Apache-2.0
// What the recorder writes down of its files.
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "core_service/folder/atomic_file.h"
#include "core_service/folder/manifest.h"
#include "support/read_json.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::manifest;
using core_service::state_writer;

class ManifestTest : public ::testing::Test {
 protected:
  manifest of(const std::string& channel) {
    return {dir.path(), "recording.json", channel, writer};
  }
  // What is in the file then.
  Json::Value saved(manifest& one) {
    one.save();
    return written();
  }
  // Null when nothing has been written.
  Json::Value written() {
    EXPECT_EQ(writer.flush(10s), 0);
    return read_json(path);
  }

  const TempDir dir;
  const std::string path = dir.path() + "recording.json";
  state_writer writer{nullptr};
};

// As file_series tells it.
void open_file(manifest& of, core_service::file_number number, const std::string& name) {
  of.on_file_opened(number, {name, 1, 1000});
}

TEST_F(ManifestTest, SuccessorClosesWhatItsPredecessorWrote) {
  const core_service::missing_medium lost{"video", "dirac", "why"};
  {
    manifest first = of("room");
    first.on_session_began(false);
    open_file(first, 1, "1_x.mp4");
    // 1920x1080, to 3500 ms.
    first.on_file_progress(1, {"video", "h264", "opus", 1920, 1080, 1000, 3500, 4096});
    open_file(first, 2, "1_y.mp4");
    first.on_file_closed(2, {"user left", 0xabcU});
    EXPECT_TRUE(first.note_missing(1, lost));
    EXPECT_FALSE(first.note_missing(1, lost)) << "each reason once";
    saved(first);
  }
  manifest second = of("hall");
  second.on_session_began(false);
  open_file(second, 1, "empty");
  open_file(second, 2, "new");
  second.on_file_dropped(1);
  EXPECT_TRUE(second.note_missing(1, lost)) << "in this session too";
  const Json::Value missing = saved(second)["missing"];
  ASSERT_EQ(missing.size(), 2U);
  EXPECT_EQ(missing[0]["channel_id"], "room");
  EXPECT_EQ(missing[1]["codec"], "dirac");
  manifest of_hall = of("hall");
  of_hall.adopt_leftovers();
  EXPECT_FALSE(of_hall.note_missing(1, lost)) << "its predecessor told that";
  manifest of_room = of("room");
  of_room.adopt_leftovers();
  EXPECT_TRUE(of_room.note_missing(1, lost)) << "told by an earlier session";
  for (uint32_t uid = 2; uid < 2500; ++uid) of_room.note_missing(uid, {"all", "", "why"});
  EXPECT_FALSE(of_room.note_missing(2499, {"all", "", "why"})) << "though it isn't listed any more";
  const Json::Value last = saved(of_room);
  EXPECT_EQ(last["missing"].size(), 1U + 1000U);
  const Json::Value& files = last["files"];
  ASSERT_EQ(files.size(), 3U);
  EXPECT_EQ(fields(files[0], {"closed", "duration_ms", "width", "height", "kind", "video_codec",
                              "audio_codec", "bytes"}),
            "recorder died 2500 1920 1080 video h264 opus 4096");
  EXPECT_FALSE(files[0].isMember("crc32")) << "nobody has seen its last byte";
  EXPECT_EQ(fields(files[1], {"closed", "channel_id", "first_utc_ms", "duration_ms", "crc32"}),
            "user left room 1000 0 00000abc");
  EXPECT_EQ(fields(files[2], {"name", "channel_id"}), "new hall");
}

TEST_F(ManifestTest, ChangedRowsAreSavedOnceAndWhatIsOverSaysWhen) {
  manifest first = of("room");
  const core_service::missing_medium lost{"all", "", "full"};
  first.save_changes();
  EXPECT_TRUE(written().isNull()) << "nothing has changed";
  ASSERT_TRUE(first.note_missing(7, lost));
  EXPECT_FALSE(first.note_missing(7, lost)) << "known";
  first.on_packets_lost(7, 3);
  first.set_name(7, "Zoë");
  first.save_changes();
  Json::Value saved = written();
  EXPECT_FALSE(saved["missing"][0].isMember("until_utc_ms"));
  EXPECT_EQ(saved["dropped_frames"]["pictures"], 0);
  std::filesystem::remove(path);
  first.save_changes();
  EXPECT_TRUE(written().isNull()) << "once";
  first.end_missing(7, "all");
  EXPECT_TRUE(first.note_missing(7, lost)) << "it has come again";
  first.end_missing(8, "all");
  EXPECT_EQ(first.all_lost_packets(), 3U);
  first.save_changes();
  saved = written();
  ASSERT_EQ(saved["missing"].size(), 2U);
  EXPECT_GE(saved["missing"][0]["until_utc_ms"].asInt64(), saved["missing"][0]["utc_ms"].asInt64());
  EXPECT_FALSE(saved["missing"][1].isMember("until_utc_ms"));
  of("room").save();
  EXPECT_EQ(written()["names"]["7"], "Zoë") << "the next session keeps it";
}

TEST_F(ManifestTest, SessionsSayWhenTheyEndedAndWhy) {
  const auto last_of = [this](manifest& one) { return saved(one)["sessions"]; };
  manifest first = of("room");
  first.on_session_began(false);
  EXPECT_EQ(fields(last_of(first)[0], {"channel_id", "ended"}), "room ");
  EXPECT_FALSE(written()["sessions"][0].isMember("ended_utc_ms"));
  manifest relaunched = of("room");
  relaunched.on_session_began(true);
  relaunched.on_session_ended("signal");
  Json::Value sessions = last_of(relaunched);
  ASSERT_EQ(sessions.size(), 1U) << "it went on with the one of its predecessor";
  EXPECT_EQ(sessions[0]["ended"], "signal");
  EXPECT_GE(sessions[0]["ended_utc_ms"].asInt64(), sessions[0]["began_utc_ms"].asInt64());
  manifest killed = of("hall");
  killed.on_session_began(true);
  open_file(killed, 1, "x");
  const int64_t last_ms = sessions[0]["ended_utc_ms"].asInt64() + 60'000;
  killed.on_file_progress(1, {"video", "h264", "", 0, 0, 1000, last_ms, 0});
  saved(killed);
  manifest next = of("room");
  next.on_session_began(false);
  sessions = last_of(next);
  ASSERT_EQ(sessions.size(), 3U);
  EXPECT_EQ(fields(sessions[1], {"channel_id", "ended", "ended_utc_ms"}),
            "hall recorder died " + std::to_string(last_ms));
}

TEST_F(ManifestTest, UnreadableOneIsKeptAside) {
  for (const char* broken : {"{\"files\":", "{\"files\":[5]}", "[1]"}) {
    dir.file("recording.json", broken);
    manifest fresh = of("room");
    EXPECT_EQ(saved(fresh)["files"].size(), 0U);
    EXPECT_EQ(read_file(path + ".broken"), broken);
    EXPECT_NE(read_file(dir.path() + "recording_engine.log").find(" error core_service"),
              std::string::npos);
  }
  manifest nowhere("/nonexistent/", "recording.json", "room", writer);
  nowhere.save();
  EXPECT_EQ(writer.flush(10s), ENOENT);
}

TEST_F(ManifestTest, SuccessorFindsWhatWasNotWrittenDownAndDropsWhatIsEmpty) {
  {
    manifest died = of("room");
    open_file(died, 1, "1_20260131T235959000.mp4");
    open_file(died, 2, "2_20260131T235959000.mp4");
    open_file(died, 3, "moved_away_meanwhile.mp4");
    saved(died);
  }
  for (const char* const name :
       {"1_20260131T235959000.mp4", "4294967295_20260131T235959123.m4a",
        "mix_20260131T235959124.webm", "7_20260131T235959000.mp4", "8_20260131T235959000.mp4"}) {
    dir.file(name, "media");
  }
  for (const char* const empty :
       {"2_20260131T235959000.mp4", "3_20260131T235959123.mp4", "6_20260131T235959123.mp4",
        "notes.mp4", "4_2026.mp4", "5_20260131T235959123.jpg"}) {
    dir.file(empty, "");
  }
  // Another recorder writes it.
  const base::unique_fd in_use(
      open((dir.path() + "6_20260131T235959123.mp4").c_str(), O_WRONLY | O_CLOEXEC));
  dir.file("recording_2.json", R"({"files": [{"name": "7_20260131T235959000.mp4"}]})");
  dir.file("recording_3.json", "[");
  dir.file("notes.json", R"({"files": [{"name": "8_20260131T235959000.mp4"}]})");
  manifest successor = of("room");
  successor.adopt_leftovers();
  std::map<std::string, Json::Value> files;
  std::string names;
  const Json::Value all = saved(successor)["files"];
  for (const Json::Value& file : all) {
    EXPECT_EQ(file["closed"], "recorder died");
    files[file["name"].asString()] = file;
  }
  for (const auto& [name, file] : files) names += name + " ";
  EXPECT_EQ(names,
            "1_20260131T235959000.mp4 4294967295_20260131T235959123.m4a "
            "8_20260131T235959000.mp4 mix_20260131T235959124.webm moved_away_meanwhile.mp4 ")
      << "only manifests say whose a file is";
  const Json::Value& found = files["4294967295_20260131T235959123.m4a"];
  EXPECT_EQ(fields(found, {"uid", "kind", "first_utc_ms"}), "4294967295 audio 1769903999123");
  EXPECT_GT(found["duration_ms"].asInt64(), 0) << "until it was written to last";
  EXPECT_EQ(files["mix_20260131T235959124.webm"]["uid"], 0);
  EXPECT_EQ(files["1_20260131T235959000.mp4"]["bytes"], 5) << "more than was told";
  for (const auto& [name, kept] :
       {std::pair("2_20260131T235959000.mp4", false), std::pair("3_20260131T235959123.mp4", false),
        std::pair("6_20260131T235959123.mp4", true), std::pair("notes.mp4", true)}) {
    EXPECT_EQ(std::filesystem::exists(dir.path() + name), kept) << name;
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
  EXPECT_EQ(writer.flush(10s), 0) << "a pipe can't be synced, and loses nothing by that";
  EXPECT_EQ(read_file(dir.path() + "state"), "three");
  const std::string nowhere = dir.path() + "none/state";
  writer.replace(nowhere, "four");
  EXPECT_EQ(writer.flush(10s), ENOENT);
  EXPECT_EQ(writer.flush(10s), 0) << "a failure is told once";
  const std::lock_guard<std::mutex> guard(failures_lock);
  EXPECT_EQ(failures, (std::map<std::string, int>{{nowhere, ENOENT}}));
}

TEST(AtomicFile, WritesIntoNobodysFileThatALinkLeadsTo) {
  const TempDir dir;
  const std::string victim = dir.path() + "victim";
  const std::string path = dir.path() + "state";
  for (const auto make : {symlink, link}) {
    std::ofstream(victim) << "somebody's";
    ASSERT_EQ(make(victim.c_str(), (path + ".new").c_str()), 0);
    EXPECT_TRUE(core_service::replace_file(path, "ours", core_service::sync::kNo));
    EXPECT_EQ(read_file(victim), "somebody's");
    EXPECT_EQ(read_file(path), "ours");
    EXPECT_FALSE(std::filesystem::is_symlink(path));
  }
}

}  // namespace
}  // namespace zelta::test
