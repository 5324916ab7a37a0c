// SPDX-License-Identifier: Apache-2.0
// What the page is told of a folder, and what is written into one.
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "exit_status.h"
#include "export_page.h"
#include "folder_reader.h"
#include "options.h"
#include "recordings/message_log.h"
#include "recordings/regular_file.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using view::text_of;

constexpr const char* kManifest = R"({"channel_id": "room", "files": [
  {"name": "2_b.mp4", "uid": 2, "first_utc_ms": 4000, "last_utc_ms": 9000, "audio_codec": "opus",
   "closed": "user left"},
  {"name": "1_a.mp4", "uid": 1, "first_utc_ms": 1000, "last_utc_ms": 5000, "closed": ""},
  {"name": "1_gone.mp4", "uid": 1, "first_utc_ms": 6000, "last_utc_ms": 7000, "closed": "x"},
  {"name": "../secret", "uid": 1, "first_utc_ms": 6000, "last_utc_ms": 7000, "closed": "x"},
  {"name": "1_c.mp4", "uid": 1, "first_utc_ms": 9000000, "last_utc_ms": 9001000, "closed": "x"}],
  "missing": [{"uid": 3, "medium": "video", "reason": "no decoder", "utc_ms": 8999000},
              {"uid": 0, "medium": "all", "reason": "disk", "utc_ms": 2000, "until_utc_ms": 3000}],
  "names": {"1": "alice </script>"}})";
constexpr const char* kMessages =
    "{\"utc_ms\": 1500, \"uid\": 1, \"channel_id\": \"room\", \"label\": \"notes\", \"text\": "
    "\"hi\"}\nno message\n[]\n{\"utc_ms\": \"x\", \"text\": \"y\"}\n"
    "{\"utc_ms\": 9000500, \"uid\": 2, \"channel_id\": \"room\", \"text\": \"late\"}\n{\"utc_ms\": "
    "1";

class ViewFolder : public testing::Test {
 protected:
  ViewFolder() {
    gst_init(nullptr, nullptr);
    dir_.file("recording.json", kManifest);
    dir_.file("messages.jsonl", kMessages);
    for (const char* name : {"1_a.mp4", "2_b.mp4", "1_c.mp4"}) dir_.file(name, "media");
  }
  // A manifest with one file, which is there.
  void other(const std::string& name, int64_t first_utc_ms) const {
    dir_.file(name, R"({"files": [{"name": "2_b.mp4", "uid": 2, "closed": "x", "first_utc_ms": )" +
                        std::to_string(first_utc_ms) + R"(, "last_utc_ms": )" +
                        std::to_string(first_utc_ms + 9) + "}]}");
  }
  const TempDir dir_;
};

TEST_F(ViewFolder, IsASessionAStretchWithWhatBelongsToIt) {
  const auto seen = view::look_at(dir_.path(), view::wall_clock_ms());
  EXPECT_EQ(seen.files, (std::set<std::string>{"1_a.mp4", "1_c.mp4", "2_b.mp4"}));
  const Json::Value& sessions = seen.page["sessions"];
  ASSERT_EQ(sessions.size(), 2U);
  const Json::Value& first = sessions[0];
  EXPECT_EQ(first["begin_ms"].asInt64(), 1000);
  EXPECT_EQ(first["end_ms"].asInt64(), 9000);
  EXPECT_TRUE(first["live"].asBool());
  ASSERT_EQ(first["files"].size(), 2U);
  EXPECT_EQ(first["files"][0]["name"], "1_a.mp4");
  EXPECT_TRUE(first["files"][0]["open"].asBool());
  EXPECT_FALSE(first["files"][1]["open"].asBool());
  EXPECT_EQ(first["users"][first["files"][0]["user"].asInt()]["name"], "alice </script>");
  ASSERT_EQ(first["missing"].size(), 1U);
  EXPECT_EQ(first["missing"][0]["user"].asInt(), -1);
  ASSERT_EQ(first["messages"].size(), 1U);
  const Json::Value& message = first["messages"][0];
  EXPECT_EQ(message["text"], "hi");
  EXPECT_EQ(message["label"], "notes");
  EXPECT_EQ(message["user"], first["files"][0]["user"]) << "of one number and channel";
  const Json::Value& second = sessions[1];
  EXPECT_EQ(second["live"], false);
  EXPECT_EQ(second["missing"][0]["reason"], "no decoder");
  EXPECT_EQ(second["messages"][0]["text"], "late") << "and not the line that is being written";
  ASSERT_EQ(seen.page["errors"].size(), 1U);
  EXPECT_EQ(seen.page["errors"][0], "messages.jsonl: 3 lines are no messages");
}

TEST_F(ViewFolder, IsNotLiveOnceNobodyWritesItOrByAClockThatIsWrong) {
  for (const int later_ms : {60'000, -60'000}) {
    const auto seen = view::look_at(dir_.path(), view::wall_clock_ms() + later_ms);
    EXPECT_FALSE(seen.page["sessions"][0]["live"].asBool()) << later_ms;
    EXPECT_FALSE(seen.page["sessions"][0]["files"][0]["open"].asBool()) << later_ms;
  }
}

TEST_F(ViewFolder, HasItsSessionsInTheOrderOfTime) {
  other("recording_10.json", 50);
  other("recording_2.json", 40);
  const Json::Value page = view::look_at(dir_.path(), 0).page;
  const std::vector<std::string> names{page["sessions"][0]["name"].asString(),
                                       page["sessions"][1]["name"].asString(),
                                       page["sessions"][2]["name"].asString()};
  EXPECT_EQ(names,
            (std::vector<std::string>{"recording_2.json", "recording_10.json", "recording.json"}));
}

// Beside a file from 1 s to 5 s.
TEST_F(ViewFolder, PartsSessionsByAPauseAndShowsWhatHasMedia) {
  const std::tuple<int64_t, int64_t, const char*, size_t, size_t> rows[] = {
      {605'000, 605'001, "x", 1, 2}, {605'001, 605'002, "x", 2, 2},
      {6000, 6000, "x", 1, 1},       {6000, 5999, "x", 1, 1},
      {6000, 6000, "", 1, 2},        {6000, 6000, "recorder died", 1, 2}};
  std::filesystem::remove(dir_.path() + "messages.jsonl");
  for (const auto& [first, last, closed, sessions, files] : rows) {
    dir_.file("recording.json",
              R"({"files": [{"name": "1_a.mp4", "uid": 1, "channel_id": "a", "closed": "x",
                  "first_utc_ms": 1000, "last_utc_ms": 5000}, {"name": "2_b.mp4", "uid": 1,
                  "channel_id": "b", "closed": ")" +
                  std::string(closed) + R"(", "first_utc_ms": )" + std::to_string(first) +
                  R"(, "last_utc_ms": )" + std::to_string(last) + "}]}");
    const auto seen = view::look_at(dir_.path(), 0);
    EXPECT_EQ(seen.page["sessions"].size(), sessions) << first << closed;
    EXPECT_EQ(seen.files.size(), files) << first << closed;
    if (sessions == 1) {
      EXPECT_EQ(seen.page["sessions"][0]["users"].size(), files) << "a number of two channels";
      EXPECT_EQ(seen.page["sessions"][0]["end_ms"].asInt64(), files == 2 ? last : 5000);
    }
  }
}

TEST_F(ViewFolder, LeavesOutTimesThatCannotBe) {
  for (const int64_t wrong : {int64_t{-1}, INT64_MIN, INT64_MAX - 9, (int64_t{1} << 53) + 1}) {
    other("recording_2.json", wrong);
    const auto seen = view::look_at(dir_.path(), 0);
    EXPECT_EQ(seen.page["sessions"].size(), 2U) << wrong;
    EXPECT_NE(text_of(seen.page["errors"]).find("1 entries have times"), std::string::npos)
        << wrong;
  }
  other("recording_2.json", (int64_t{1} << 53) - 9);
  EXPECT_EQ(view::look_at(dir_.path(), 0).page["sessions"].size(), 3U) << "the last that can be";
}

TEST_F(ViewFolder, TellsNoPageWhereItStands) {
  dir_.file("recording_2.json", "no manifest");
  const auto seen = view::look_at(dir_.path(), 0);
  EXPECT_EQ(text_of(seen.page).find(dir_.path()), std::string::npos);
  EXPECT_NE(text_of(seen.page["errors"]).find("\"recording_2.json is no manifest"),
            std::string::npos);
  EXPECT_EQ(seen.errors.back().rfind(dir_.path() + "recording_2.json", 0), 0U) << "on stderr it is";
  const auto gone = view::look_at("/nonexistent/", 0);
  EXPECT_EQ(gone.errors.size(), 1U);
  EXPECT_EQ(gone.page["errors"][0].asString().rfind("The folder can't be read", 0), 0U);
}

TEST_F(ViewFolder, IsLookedAtAgainForWhatHasChangedAlone) {
  view::folder_reader reader(dir_.path());
  const int64_t now_ms = view::wall_clock_ms();
  const auto messages = [&](int64_t later_ms) {
    return reader.look(now_ms + later_ms).page["sessions"][0]["messages"].size();
  };
  EXPECT_EQ(messages(0), 1U);
  EXPECT_EQ(messages(0), 1U);
  std::ofstream(dir_.path() + "messages.jsonl", std::ios::app)
      << "0}\n{\"utc_ms\": 2000, \"uid\": 1, \"text\": \"more\"}\n";
  EXPECT_EQ(messages(0), 2U);
  EXPECT_TRUE(reader.look(now_ms).page["sessions"][0]["live"].asBool());
  EXPECT_FALSE(reader.look(now_ms + 60'000).page["sessions"][0]["live"].asBool());
  std::filesystem::remove(dir_.path() + "2_b.mp4");
  EXPECT_EQ(reader.look(now_ms).files.count("2_b.mp4"), 0U);
  other("recording_2.json", 20);
  EXPECT_EQ(reader.look(now_ms).manifests, 2U);
  std::filesystem::remove(dir_.path() + "recording.json");
  EXPECT_EQ(reader.look(now_ms).manifests, 1U);
}

// Each would keep a reader waiting for ever, or lead it elsewhere.
TEST_F(ViewFolder, IsNotHeldUpByWhatIsNoFile) {
  using make = void (*)(const std::string&);
  const make makers[] = {
      [](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); },
      [](const std::string& path) { ASSERT_EQ(mkdir(path.c_str(), 0700), 0); },
      [](const std::string& path) { ASSERT_EQ(symlink("/dev/zero", path.c_str()), 0); }};
  for (const make one : makers) {
    for (const char* name :
         {"messages.jsonl", "recording_2.json", "messages_2.jsonl", "index.html", "2_b.mp4"}) {
      std::filesystem::remove_all(dir_.path() + name);
      one(dir_.path() + name);
    }
    const auto seen = view::look_at(dir_.path(), 0);
    EXPECT_EQ(seen.manifests, 1U);
    EXPECT_EQ(seen.files.count("2_b.mp4"), 0U);
    EXPECT_EQ(seen.page["sessions"][0]["messages"].size(), 0U);
    EXPECT_NE(text_of(seen.page["errors"]).find("messages.jsonl can't be read"), std::string::npos);
    view::options o;
    o.folder = dir_.path();
    EXPECT_EQ(view::export_page(o), view::kCantServe) << "index.html isn't ours";
    struct stat status {};
    EXPECT_FALSE(recordings::open_regular(dir_.path(), "index.html", status).valid());
  }
}

TEST_F(ViewFolder, IsExportedIntoAPageThatNoNameBreaksOutOf) {
  view::options o;
  o.folder = dir_.path();
  ASSERT_EQ(view::export_page(o), view::kDone);
  const std::string page = read_file(dir_.path() + "index.html");
  EXPECT_NE(page.find("alice \\u003c/script>"), std::string::npos);
  EXPECT_EQ(page.find("alice </script>"), std::string::npos);
  EXPECT_NE(page.find("Content-Security-Policy"), std::string::npos);
  EXPECT_EQ(page.find(dir_.path()), std::string::npos);
  const std::string victim = dir_.file("victim", "somebody's");
  ASSERT_EQ(symlink(victim.c_str(), (dir_.path() + "index.html.new").c_str()), 0);
  EXPECT_EQ(view::export_page(o), view::kDone) << "over its own";
  EXPECT_EQ(read_file(victim), "somebody's");
  EXPECT_FALSE(std::filesystem::is_symlink(dir_.path() + "index.html"));
  dir_.file("index.html", "<html>somebody's</html>");
  EXPECT_EQ(view::export_page(o), view::kCantServe);
  EXPECT_EQ(read_file(dir_.path() + "index.html"), "<html>somebody's</html>");
  o.folder = "/nonexistent/";
  EXPECT_EQ(view::export_page(o), view::kNoRecording);
}

TEST_F(ViewFolder, OpensNothingThatALinkLeadsTo) {
  const std::string link = dir_.path() + "link.mp4";
  ASSERT_EQ(symlink("/etc/passwd", link.c_str()), 0);
  struct stat status {};
  EXPECT_FALSE(recordings::open_regular(dir_.path(), "link.mp4", status).valid());
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(recordings::open_regular(dir_.path(), ".", status).valid());
  EXPECT_TRUE(recordings::open_regular(dir_.path(), "1_a.mp4", status).valid());
  EXPECT_EQ(status.st_size, 5);
}

TEST(MessageLog, StandsBesideItsManifest) {
  EXPECT_EQ(recordings::message_log_of("recording.json"), "messages.jsonl");
  EXPECT_EQ(recordings::message_log_of("recording_12.json"), "messages_12.jsonl");
  const TempDir dir;
  dir.file("messages_2.jsonl", "{\"text\": \"a\"}\n{\"text\": \"b\"}\n{\"text\": \"c\"}\n");
  std::vector<std::string> errors;
  EXPECT_EQ(recordings::read_messages(dir.path(), "recording_2.json", 2, errors).size(), 2U);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_NE(errors[0].find("1 messages beyond the first 2"), std::string::npos);
  errors.clear();
  dir.file("messages.jsonl",
           "{\"text\": \"" + std::string(2 << 20, 'a') + "\"}\n{\"text\": \"b\"}\n");
  EXPECT_EQ(recordings::read_messages(dir.path(), "recording.json", 9, errors).size(), 1U);
  EXPECT_EQ(errors, (std::vector<std::string>{"messages.jsonl: 1 lines are no messages"}));
}

}  // namespace
}  // namespace zelta::test
