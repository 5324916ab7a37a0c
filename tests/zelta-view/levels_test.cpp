// SPDX-License-Identifier: Apache-2.0
// How loud files are, and where that is kept.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "level_cache.h"
#include "level_meter.h"
#include "level_worker.h"
#include "recordings/regular_file.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

TEST(LevelCache, ForgetsWhatTheFileNoLongerIsAndTheOldest) {
  const TempDir dir;
  const view::level_cache cache(dir.path() + "cache/", 2);
  const auto key_of = [&dir] {
    struct stat status {};
    return view::level_cache::key_of(recordings::open_regular(dir.path(), "1.mp4", status).get());
  };
  dir.file("1.mp4", "media");
  const std::string key = key_of();
  EXPECT_FALSE(cache.find(key));
  cache.keep(key, std::string("\0\1", 2));
  EXPECT_EQ(cache.find(key), std::string("\0\1", 2));
  dir.file("1.mp4", "more media");
  EXPECT_NE(key_of(), key);
  namespace fs = std::filesystem;
  const fs::path first = dir.path() + "cache/" + key + ".levels";
  fs::last_write_time(first, fs::file_time_type::clock::now() - std::chrono::hours(1));
  cache.keep("b", "2");
  cache.keep("c", "3");
  EXPECT_FALSE(cache.find(key));
  EXPECT_EQ(cache.find("b"), "2");
  EXPECT_EQ(view::level_cache::key_of(-1), "");
  const view::level_cache none("");
  none.keep(key, "1");
  EXPECT_FALSE(none.find(key));
}

class LevelMeter : public testing::Test {
 protected:
  LevelMeter() { gst_init(nullptr, nullptr); }
  // By ffmpeg, from a second of a full sine after half a second of nothing.
  void make(const std::string& name, const std::string& how) const {
    const std::string line =
        "timeout 20 ffmpeg -v error -f lavfi -i "
        "\"aevalsrc='gte(t,0.5)*sin(2*PI*1000*t)':s=48000:d=1\" " +
        how + " " + dir_.path() + name;
    ASSERT_EQ(std::system(line.c_str()), 0) << line;
  }
  std::optional<std::string> levels_of(const std::string& name) {
    const std::atomic<bool> stop{false};
    struct stat status {};
    const auto file = recordings::open_regular(dir_.path(), name, status);
    return view::measure_levels(file.get(), stop, error_);
  }
  const TempDir dir_;
  std::string error_;
};

TEST_F(LevelMeter, TellsLoudFromSilent) {
  for (const auto& [name, how] :
       {std::pair("1.wav", ""), std::pair("1.mp4", "-c:a aac -movflags frag_keyframe+empty_moov"),
        std::pair("1.m4a", "-c:a aac"), std::pair("1.webm", "-c:a libopus")}) {
    make(name, how);
    const auto levels = levels_of(name);
    ASSERT_TRUE(levels) << name << ": " << error_;
    ASSERT_GE(levels->size(), 10U) << name;
    for (size_t i = 0; i < 4; ++i) EXPECT_LT(static_cast<unsigned char>((*levels)[i]), 60U) << name;
    for (size_t i = 6; i < 9; ++i) {
      EXPECT_GT(static_cast<unsigned char>((*levels)[i]), 240U) << name << " " << i;
    }
  }
  dir_.file("x.mp4", "no media");
  EXPECT_FALSE(levels_of("x.mp4"));
  EXPECT_NE(error_, "");
}

// A damaged time would ask for a step a tenth of a second up to it.
TEST_F(LevelMeter, TakesNoTimeThatIsFarOff) {
  make("far.webm", "-c:a libopus -output_ts_offset 8000000000");
  const auto levels = levels_of("far.webm");
  EXPECT_TRUE(!levels || levels->size() <= size_t{7} * 24 * 3600 * 10) << levels->size();
}

TEST_F(LevelMeter, FetchesNothingThatAPlaylistNames) {
  const base::unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof place;
  auto* const address = reinterpret_cast<sockaddr*>(&place);
  ASSERT_EQ(bind(listener.get(), address, size), 0);
  ASSERT_EQ(listen(listener.get(), 8), 0);
  ASSERT_EQ(getsockname(listener.get(), address, &size), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(place.sin_port)) + "/1.ts";
  const std::pair<const char*, std::string> rows[] = {
      {"1.mp4", "#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXT-X-MEDIA-SEQUENCE:0\n#EXTINF:9,\n" + url +
                    "\n#EXT-X-ENDLIST\n"},
      {"2.mp4",
       "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
       "mediaPresentationDuration=\"PT9S\"><Period><AdaptationSet mimeType=\"audio/mp4\">"
       "<Representation id=\"1\" bandwidth=\"1\"><BaseURL>" +
           url + "</BaseURL></Representation></AdaptationSet></Period></MPD>"}};
  for (const auto& [name, text] : rows) {
    dir_.file(name, text);
    EXPECT_FALSE(levels_of(name)) << name;
    EXPECT_NE(error_, "");
    EXPECT_LT(accept(listener.get(), nullptr, nullptr), 0) << name << " was followed";
  }
}

TEST_F(LevelMeter, FollowsNoLink) {
  make("1.wav", "");
  ASSERT_EQ(symlink((dir_.path() + "1.wav").c_str(), (dir_.path() + "2.wav").c_str()), 0);
  const std::atomic<bool> stop{false};
  const view::level_cache none("");
  std::set<std::string> failed;
  EXPECT_TRUE(view::levels_of(dir_.path(), "1.wav", none, failed, stop));
  EXPECT_FALSE(view::levels_of(dir_.path(), "2.wav", none, failed, stop));
}

TEST_F(LevelMeter, WorksOnceForAllWhoWaitAndNotForThoseWhoHaveGone) {
  make("1.wav", "");
  dir_.file("bad.mp4", "no media");
  std::promise<void> blocked;
  std::promise<void> go_on;
  std::promise<void> done;
  std::map<std::string, int> given;
  std::atomic<bool> gone_was_told{false};
  {
    view::level_worker worker(dir_.path(), view::level_cache(""));
    worker.measure("bad.mp4", [&](uint64_t, const std::optional<std::string>& levels) {
      given["bad"] += levels ? 100 : 1;
      blocked.set_value();
      go_on.get_future().wait();
    });
    ASSERT_EQ(blocked.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const uint64_t gone =
        worker.measure("absent.mp4", [&](uint64_t, const auto&) { gone_was_told = true; });
    for (int i = 0; i < 3; ++i) {
      worker.measure("1.wav", [&](uint64_t, const std::optional<std::string>& levels) {
        given["1"] += levels ? 1 : 100;
      });
    }
    worker.forget(gone);
    worker.measure("bad.mp4", [&](uint64_t, const auto&) { done.set_value(); });
    go_on.set_value();
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  }
  EXPECT_EQ(given["bad"], 1);
  EXPECT_EQ(given["1"], 3);
  EXPECT_FALSE(gone_was_told);
}

}  // namespace
}  // namespace zelta::test
