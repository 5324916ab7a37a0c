// SPDX-License-Identifier: Apache-2.0
// Who gets what of the server, and what the page is told of a folder.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "byte_range.h"
#include "exit_status.h"
#include "export_page.h"
#include "file_stream.h"
#include "level_cache.h"
#include "level_meter.h"
#include "options.h"
#include "page_text.h"
#include "recordings/message_log.h"
#include "session_json.h"
#include "support/temp_dir.h"
#include "view_rules.h"

namespace zelta::test {
namespace {

using view::byte_range;
using view::verdict;

TEST(ByteRange, IsThePartThatTheStandardMeans) {
  const std::tuple<const char*, byte_range::outcome, uint64_t, uint64_t> rows[] = {
      {"", byte_range::kWhole, 0, 99},
      {"bytes=0-", byte_range::kPart, 0, 99},
      {"bytes=10-19", byte_range::kPart, 10, 19},
      {"Bytes=99-99", byte_range::kPart, 99, 99},
      {"bytes=90-5000", byte_range::kPart, 90, 99},
      {"bytes=-7", byte_range::kPart, 93, 99},
      {"bytes=-700", byte_range::kPart, 0, 99},
      {"bytes=5-99999999999999999999999", byte_range::kPart, 5, 99},
      {"bytes=100-", byte_range::kBeyond, 0, 0},
      {"bytes=99999999999999999999999-", byte_range::kBeyond, 0, 0},
      {"bytes=-0", byte_range::kBeyond, 0, 0},
      {"bytes=9-5", byte_range::kWhole, 0, 99},
      {"bytes=-", byte_range::kWhole, 0, 99},
      {"bytes=0-1,5-6", byte_range::kWhole, 0, 99},
      {"bytes= 1-2", byte_range::kWhole, 0, 99},
      {"bytes=1--2", byte_range::kWhole, 0, 99},
      {"items=1-2", byte_range::kWhole, 0, 99}};
  for (const auto& [header, what, first, last] : rows) {
    const byte_range range = view::parse_range(header, 100);
    EXPECT_EQ(std::tie(range.what, range.first, range.last), std::tie(what, first, last)) << header;
  }
  EXPECT_EQ(view::parse_range("bytes=0-", 0).what, byte_range::kBeyond);
  EXPECT_EQ(view::parse_range("bytes=-1", 0).what, byte_range::kBeyond);
}

TEST(ViewRules, LeadNowhereButToThePageAndNamedFiles) {
  const view::view_rules rules("", "secret");
  const std::tuple<const char*, const char*, const char*, verdict::kind, const char*, int> rows[] =
      {{"GET", "/", "127.0.0.1:8", verdict::kPage, "", 200},
       {"HEAD", "/session.json", "localhost:8", verdict::kSession, "", 200},
       {"GET", "/files/1%20a.mp4", "[::1]:8", verdict::kFile, "1 a.mp4", 200},
       {"GET", "/levels/1.mp4", "[::1]", verdict::kLevels, "1.mp4", 200},
       {"GET", "/files/..%2Fetc%2Fpasswd", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/../../etc/passwd", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/..", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/%2e%2e", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/a%00b", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/a%zz", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/recording.json", "127.0.0.1", verdict::kRefuse, "", 404},
       {"POST", "/", "127.0.0.1", verdict::kRefuse, "", 405},
       {"POST", "/enter", "127.0.0.1", verdict::kRefuse, "", 405},
       {"GET", "/", "recordings.example:8", verdict::kRefuse, "", 421},
       {"GET", "/", "127.0.0.1.example", verdict::kRefuse, "", 421},
       {"GET", "/", "", verdict::kRefuse, "", 421}};
  for (const auto& [method, path, host, what, name, status] : rows) {
    const verdict found = rules.judge({method, path, host, "", ""});
    EXPECT_EQ(found.what, what) << path << " " << host;
    EXPECT_EQ(found.name, name);
    EXPECT_EQ(found.status, status) << path << " " << host;
  }
}

TEST(ViewRules, LetNobodyInWithoutTheToken) {
  const view::view_rules rules("open sesame", "c00c1e");
  const std::tuple<const char*, const char*, const char*, const char*, verdict::kind> rows[] = {
      {"GET", "/", "", "", verdict::kAskToken},
      {"GET", "/files/1.mp4", "", "", verdict::kRefuse},
      {"GET", "/session.json", "Bearer open", "zelta_view=c00c1", verdict::kRefuse},
      {"GET", "/session.json", "Basic open sesame", "xzelta_view=c00c1e", verdict::kRefuse},
      {"GET", "/session.json", "bearer open sesame", "", verdict::kSession},
      {"GET", "/files/1.mp4", "", "a=b; zelta_view=c00c1e; c", verdict::kFile},
      {"GET", "/", "", "zelta_view=c00c1e", verdict::kPage},
      {"POST", "/enter", "", "", verdict::kEnter}};
  for (const auto& [method, path, authorization, cookie, what] : rows) {
    EXPECT_EQ(rules.judge({method, path, "name.example", authorization, cookie}).what, what)
        << path << " " << authorization << " " << cookie;
  }
  EXPECT_TRUE(rules.knows_token("token=open+sesame"));
  EXPECT_FALSE(rules.knows_token("token=open"));
  EXPECT_FALSE(rules.knows_token("toke=open+sesame"));
  EXPECT_FALSE(rules.knows_token(""));
  EXPECT_NE(view::fresh_secret(), view::fresh_secret());
}

TEST(ViewOptions, AreRefusedWithTheValueAndWhatWouldBeRight) {
  const TempDir dir;
  const std::string empty = dir.file("empty", "");
  const std::string token = dir.file("token", "sesame\nmore");
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", view::kUsage, "folder"},
      {"f --address 127.0.0.1", view::kUsage, "--address 127.0.0.1 should be"},
      {"f --address ::1:80", view::kUsage, "in brackets"},
      {"f --address 127.0.0.1:70000", view::kUsage, "70000 should be"},
      {"f --address here:80", view::kUsage, "here:80 should be"},
      {"f --address 0.0.0.0:80", view::kUsage, "give a token"},
      {"f --export --address 127.0.0.1:80", view::kUsage, "excludes"},
      {"f --token-file " + empty, view::kUsage, "should hold the secret"},
      {"f --address [::1]:80", view::kDone, ""},
      {"f --address 0.0.0.0:80 --token-file " + token, view::kDone, ""}};
  for (const auto& [line, status, says] : rows) {
    std::vector<std::string> words = words_of("zelta-view " + line);
    std::vector<const char*> argv;
    for (const std::string& word : words) argv.push_back(word.c_str());
    view::options o;
    const auto parsed = view::parse_options(static_cast<int>(argv.size()), argv.data(), o);
    EXPECT_EQ(parsed.ok, status == view::kDone) << line << parsed.message;
    EXPECT_EQ(parsed.exit_status, status) << line;
    EXPECT_NE(parsed.message.find(says), std::string::npos) << parsed.message;
  }
}

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
    "{\"utc_ms\": 1500, \"uid\": 1, \"channel_id\": \"room\", \"text\": \"hi\"}\n"
    "no message\n{\"utc_ms\": \"x\", \"text\": \"y\"}\n"
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
  EXPECT_EQ(first["messages"][0]["text"], "hi");
  const Json::Value& second = sessions[1];
  EXPECT_FALSE(second["live"].asBool());
  EXPECT_EQ(second["missing"][0]["reason"], "no decoder");
  EXPECT_EQ(second["messages"][0]["text"], "late") << "and not the line that is being written";
  ASSERT_EQ(seen.page["errors"].size(), 1U);
  EXPECT_EQ(seen.page["errors"][0], "messages.jsonl: 2 lines are no messages");
}

TEST_F(ViewFolder, IsNotLiveOnceNobodyWritesIt) {
  const auto seen = view::look_at(dir_.path(), view::wall_clock_ms() + 60'000);
  EXPECT_FALSE(seen.page["sessions"][0]["live"].asBool());
  EXPECT_FALSE(seen.page["sessions"][0]["files"][0]["open"].asBool());
}

TEST_F(ViewFolder, IsExportedIntoAPageThatNoNameBreaksOutOf) {
  view::options o;
  o.folder = dir_.path();
  ASSERT_EQ(view::export_page(o), view::kDone);
  const std::string page = read_file(dir_.path() + "index.html");
  EXPECT_NE(page.find("alice \\u003c/script>"), std::string::npos);
  EXPECT_EQ(page.find("alice </script>"), std::string::npos);
  EXPECT_NE(page.find("Content-Security-Policy"), std::string::npos);
  EXPECT_EQ(view::export_page(o), view::kDone) << "over its own";
  dir_.file("index.html", "<html>somebody's</html>");
  EXPECT_EQ(view::export_page(o), view::kCantServe);
  EXPECT_EQ(read_file(dir_.path() + "index.html"), "<html>somebody's</html>");
  o.folder = "/nonexistent/";
  EXPECT_EQ(view::export_page(o), view::kNoRecording);
}

TEST_F(ViewFolder, OpensNothingThatALinkLeadsTo) {
  const std::string link = dir_.path() + "link.mp4";
  ASSERT_EQ(symlink("/etc/passwd", link.c_str()), 0);
  uint64_t size = 0;
  EXPECT_FALSE(view::open_in(dir_.path(), "link.mp4", size).valid());
  EXPECT_FALSE(view::open_in(dir_.path(), ".", size).valid());
  EXPECT_TRUE(view::open_in(dir_.path(), "1_a.mp4", size).valid());
  EXPECT_EQ(size, 5U);
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
}

TEST(LevelCache, ForgetsWhatTheFileNoLongerIsAndTheOldest) {
  const TempDir dir;
  const view::level_cache cache(dir.path() + "cache/", 2);
  const std::string path = dir.file("1.mp4", "media");
  const std::string key = cache.key_of(path);
  EXPECT_FALSE(cache.find(key));
  cache.keep(key, std::string("\0\1", 2));
  EXPECT_EQ(cache.find(key), std::string("\0\1", 2));
  dir.file("1.mp4", "more media");
  EXPECT_NE(cache.key_of(path), key);
  namespace fs = std::filesystem;
  const fs::path first = dir.path() + "cache/" + key + ".levels";
  fs::last_write_time(first, fs::file_time_type::clock::now() - std::chrono::hours(1));
  cache.keep("b", "2");
  cache.keep("c", "3");
  EXPECT_FALSE(cache.find(key));
  EXPECT_EQ(cache.find("b"), "2");
  EXPECT_EQ(view::level_cache("").key_of(path), "");
}

// Half a second of a full sine after half a second of nothing.
TEST(LevelMeter, TellsLoudFromSilent) {
  gst_init(nullptr, nullptr);
  const TempDir dir;
  const std::string path = dir.path() + "1.wav";
  const std::string make =
      "timeout 20 ffmpeg -v error -f lavfi -i "
      "\"aevalsrc='gte(t,0.5)*sin(2*PI*1000*t)':s=48000:d=1\" " +
      path;
  ASSERT_EQ(std::system(make.c_str()), 0);
  const std::atomic<bool> stop{false};
  std::string error;
  const auto levels = view::measure_levels(path, stop, error);
  ASSERT_TRUE(levels) << error;
  ASSERT_EQ(levels->size(), 10U);
  EXPECT_EQ(levels->substr(0, 4), std::string(4, '\0'));
  for (size_t i = 5; i < 10; ++i) EXPECT_GT(static_cast<unsigned char>((*levels)[i]), 245U) << i;
  EXPECT_FALSE(view::measure_levels(dir.file("x.mp4", "no media"), stop, error));
  EXPECT_NE(error, "");
}

}  // namespace
}  // namespace zelta::test
