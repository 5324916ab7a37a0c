// SPDX-License-Identifier: Apache-2.0
// What users write and how loud they are, in its file.
#include <cerrno>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "core_service/files/message_log.h"
#include "core_service/files/volume_log.h"
#include "core_service/media/timeline.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using namespace core_service;

std::string text_in(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class LineLogs : public testing::Test {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
  // As a recorder that runs, keeps `texts` and ends.
  void record(const std::vector<const char*>& texts) {
    files::message_log log(path, "room", loop, disk, [this](int error) { failed = error; });
    EXPECT_FALSE(log.is_open());
    for (const char* const text : texts) EXPECT_TRUE(log.add(7, {now, "chat", text}));
    log.close([&] { loop.stop(); });
    loop.run(false);
    EXPECT_FALSE(log.is_open());
  }
  std::string line(const std::string& text) const {
    return R"({"channel_id":"room","label":"chat","text":")" + text + R"(","uid":7,"utc_ms":)" +
           std::to_string(media::utc_ms_of(now)) + "}\n";
  }

  TempDir folder;
  const std::string path = folder.path() + "/messages.jsonl";
  base::event_loop loop;
  files::file_writer disk{loop};
  const media::media_time now = media::now();
  int failed = 0;
};

TEST_F(LineLogs, LinesStandBehindThoseOfBefore) {
  record({"a \"quoted\" line\n", "\xc3\xa9"});
  record({"behind"});
  const std::string whole = line("a \\\"quoted\\\" line\\n") + line("\xc3\xa9") + line("behind");
  EXPECT_EQ(text_in(path), whole);
  // A machine that crashed has left a part of one.
  std::ofstream(path, std::ios::app) << "{\"chan";
  record({"again"});
  EXPECT_EQ(text_in(path), whole + "{\"chan\n" + line("again"));
  EXPECT_EQ(failed, 0);
}

TEST_F(LineLogs, VolumesAreALineASecondOfThoseWhoAreHeard) {
  files::volume_log log(path, "room", loop, disk, [this](int error) { failed = error; });
  const std::vector<std::map<uint32_t, uint32_t>> steps = {
      {{7, 1}}, {}, {{7, 255}, {9, 3}},
      {},       {},  // a second
      {},       {}, {},
      {},       {},  // one of silence
      {{9, 4}}, {},
  };
  media::media_time at = now;
  for (const auto& step : steps) {
    at += std::chrono::milliseconds(files::volume_log::kStepMs);
    EXPECT_TRUE(log.add(at, step));
  }
  EXPECT_TRUE(log.flush());
  log.close([&] { loop.stop(); });
  loop.run(false);
  const int64_t began_ms = media::utc_ms_of(now);
  const auto line_of = [](int64_t utc_ms, const std::string& volumes) {
    return R"({"channel_id":"room","step_ms":200,"utc_ms":)" + std::to_string(utc_ms) +
           R"(,"volumes":)" + volumes + "}\n";
  };
  EXPECT_EQ(text_in(path), line_of(began_ms, R"({"7":[1,0,255,0,0],"9":[0,0,3,0,0]})") +
                               line_of(began_ms + 2000, R"({"9":[4,0]})"));
}

TEST_F(LineLogs, SaysWhatCantBeWritten) {
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  record({"lost"});
  EXPECT_EQ(failed, EISDIR);
}

}  // namespace
}  // namespace zelta::test
