// SPDX-License-Identifier: Apache-2.0
// Films of small recordings, made by ffmpeg: each user one colour and one tone.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "canvas.h"
#include "exit_status.h"
#include "lay.h"
#include "limiter.h"
#include "picture_track.h"
#include "session.h"
#include "sound_track.h"
#include "stream_reader.h"

namespace zelta::lay {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kSecond = 1000000;
constexpr int64_t kZeroMs = 1764000000000;

struct part {
  const char* name;
  uint32_t uid;
  int first_s;
  int last_s;
  const char* size = "320x180";
  const char* colour = "white";
  const char* video = "libx264";
};

class Film : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "zelta-lay-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
    asked_.folder = folder_;
    asked_.output = path("film.mp4");
    asked_.width = 640;
    asked_.height = 360;
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  void record(const std::vector<part>& parts) {
    std::string files;
    for (const part& p : parts) {
      const std::string length = std::to_string(p.last_s - p.first_s);
      const std::string command =
          std::string("timeout 60 ffmpeg -v error -y -f lavfi -i color=") + p.colour +
          ":s=" + p.size + ":r=25:d=" + length + " -f lavfi -i sine=440:r=48000:d=" + length +
          ",volume=12dB -c:v " + p.video + " -g 25 -bf 0 -c:a libopus -movflags +frag_keyframe " +
          path(p.name);
      ASSERT_EQ(std::system(command.c_str()), 0) << command;
      const std::string size = p.size;
      const size_t x = size.find('x');
      files +=
          std::string(files.empty() ? "" : ",") + R"({"name":")" + p.name + R"(","uid":)" +
          std::to_string(p.uid) +
          R"(,"kind":"audio_video","closed":"user left","audio_codec":"opus","video_codec":")" +
          (std::string(p.video) == "libx264" ? "h264" : "vp9") + R"(","width":)" +
          size.substr(0, x) + R"(,"height":)" + size.substr(x + 1) + R"(,"first_utc_ms":)" +
          std::to_string(kZeroMs + p.first_s * 1000) + R"(,"last_utc_ms":)" +
          std::to_string(kZeroMs + p.last_s * 1000) + "}";
    }
    std::ofstream(path("recording.json"))
        << R"({"version":1,"channel_id":"c","files":[)" << files << "]}";
  }

  // The film as a recording of one user.
  session film() const {
    session made;
    user u;
    stretch s;
    s.path = asked_.output;
    s.end_us = media_length_us(asked_.output);
    s.video_codec = "h264";
    s.audio_codec = "aac";
    u.stretches.push_back(s);
    made.users.push_back(u);
    made.length_us = s.end_us;
    return made;
  }

  // How bright the film is at places of a picture, 0 to 255.
  std::vector<int> brightness(double at_s, const std::vector<std::array<int, 2>>& places) const {
    const session s = film();
    problems found;
    picture_track track(s.users[0], kSecond / 50, found);
    const AVFrame* const picture = track.at(std::llround(at_s * kSecond));
    EXPECT_TRUE(found.lines().empty()) << found.lines().front();
    std::vector<int> made;
    for (const auto& p : places) {
      made.push_back(picture == nullptr ? -1 : *pixel(*picture, 0, p[0], p[1]));
    }
    return made;
  }

  // Root of the mean square of a tenth of a second, 1 is full scale.
  double loudness(double at_s) const {
    const session s = film();
    problems found;
    sound_track track(s.users[0], found);
    std::vector<float> samples(9600);
    track.add(std::llround(at_s * kSampleRate), 4800, samples.data());
    double sum = 0;
    for (const float v : samples) sum += static_cast<double>(v) * v;
    return std::sqrt(sum / static_cast<double>(samples.size()));
  }

  std::string tag_of_pictures() const {
    std::string error;
    const auto reader = stream_reader::open(asked_.output, AVMEDIA_TYPE_VIDEO, error);
    if (reader == nullptr) return error;
    const uint32_t tag = reader->parameters().codec_tag;
    return {static_cast<char>(tag), static_cast<char>(tag >> 8), static_cast<char>(tag >> 16),
            static_cast<char>(tag >> 24)};
  }

  std::string folder_;
  options asked_;
};

TEST_F(Film, ShowsWhoComesLateLateAndJoinsFiles) {
  record({{"1.mp4", 1, 0, 2}, {"1b.mp4", 1, 2, 4, "160x90"}, {"2.mp4", 2, 1, 3}});
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_NEAR(static_cast<double>(media_length_us(asked_.output)), 4e6, 5e4);
  const struct {
    double at_s;
    bool first;
    bool second;
  } rows[] = {{0.5, true, false}, {1.5, true, true}, {1.96, true, true},
              {2.04, true, true}, {2.5, true, true}, {3.5, true, false}};
  for (const auto& row : rows) {
    const std::vector<int> got = brightness(row.at_s, {{160, 180}, {480, 180}});
    EXPECT_EQ(got[0] > 200, row.first) << row.at_s << ": " << got[0];
    EXPECT_EQ(got[1] > 200, row.second) << row.at_s << ": " << got[1];
  }
  // Two tones of 0.35 that are one tone: together louder, and not clipped.
  EXPECT_GT(loudness(1.5), 1.15 * loudness(0.5));
  EXPECT_GT(loudness(2.0), 0.9 * loudness(1.5)) << "a join is heard";
}

TEST_F(Film, OfATrackCopiesWithBlackAndSilenceBetween) {
  record({{"1.mp4", 1, 0, 2}, {"1b.mp4", 1, 4, 6}, {"2.mp4", 2, 0, 9}});
  asked_.track = 1;
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_EQ(tag_of_pictures(), "avc3") << "copied";
  EXPECT_NEAR(static_cast<double>(media_length_us(asked_.output)), 6e6, 1e5);
  for (const double at_s : {1.0, 3.0, 5.0}) {
    const bool there = at_s != 3.0;
    EXPECT_EQ(brightness(at_s, {{160, 90}})[0] > 200, there) << at_s;
    EXPECT_EQ(loudness(at_s) > 0.1, there) << at_s;
  }
}

TEST_F(Film, OfATrackEncodesWhatChangesItsSize) {
  record({{"1.mp4", 1, 0, 1}, {"1b.mp4", 1, 1, 2, "160x90"}});
  asked_.track = 1;
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_EQ(tag_of_pictures(), "avc1");
  EXPECT_GT(brightness(1.5, {{310, 170}})[0], 200) << "the small picture fills the large one";
}

TEST_F(Film, BeginsAndEndsWhereItIsTold) {
  record({{"1.mp4", 1, 0, 6}, {"2.mp4", 2, 3, 6}});
  asked_.from = "2";
  asked_.to = "2025-11-24T16:00:05Z";
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_NEAR(static_cast<double>(media_length_us(asked_.output)), 3e6, 5e4);
  EXPECT_LT(brightness(0.9, {{480, 180}})[0], 100);
  EXPECT_GT(brightness(1.1, {{480, 180}})[0], 200);
}

TEST_F(Film, IsMadeWithoutWhatIsBroken) {
  record({{"1.mp4", 1, 0, 1}, {"2.mp4", 2, 0, 1}, {"3.mp4", 3, 0, 1}});
  std::ofstream(path("2.mp4")) << "no media";
  fs::remove(path("3.mp4"));
  EXPECT_EQ(lay(asked_), kNotAll);
  EXPECT_GT(brightness(0.5, {{160, 180}})[0], 200);
}

TEST_F(Film, IsRefusedBeforeAnythingIsLost) {
  record({{"1.mp4", 1, 0, 1}});
  const struct {
    const char* what;
    void (*ask)(options&, const std::string&);
  } rows[] = {
      {"a film that is there", [](options& o, const std::string& f) { o.output = f + "/1.mp4"; }},
      {"a recorded file",
       [](options& o, const std::string& f) {
         o.output = f + "/1.mp4";
         o.force = true;
       }},
      {"no folder", [](options& o, const std::string& f) { o.output = f + "/no/a.mp4"; }},
      {"no recording", [](options& o, const std::string&) { o.folder = "/nowhere"; }},
      {"no such user", [](options& o, const std::string&) { o.track = 9; }},
      {"no such layout", [](options& o, const std::string&) { o.layout = "gird"; }},
      {"an empty span", [](options& o, const std::string&) { o.from = "5"; }},
      {"no time", [](options& o, const std::string&) { o.to = "soon"; }},
  };
  const auto bytes = fs::file_size(path("1.mp4"));
  for (const auto& row : rows) {
    options o = asked_;
    row.ask(o, folder_);
    EXPECT_EQ(lay(o), kUsage) << row.what;
    EXPECT_EQ(fs::file_size(path("1.mp4")), bytes) << row.what;
    EXPECT_FALSE(fs::exists(path("film.mp4"))) << row.what;
  }
}

TEST(Limiter, KeepsItsPlaceAndFullScale) {
  limiter l(1024);
  std::vector<float> pairs(2 * 48000, 0.1F);
  for (size_t i = 48000; i < 52000; ++i) pairs[i] = (i / 48) % 2 == 0 ? 3.0F : -3.0F;
  l.push(pairs.data(), 48000, 0);
  l.finish();
  const av_ptr<AVFrame> frame = make_frame();
  int64_t samples = 0;
  int64_t first_loud = -1;
  float most = 0;
  while (l.pull(*frame)) {
    for (int i = 0; i < frame->nb_samples; ++i) {
      const float v = std::fabs(reinterpret_cast<const float*>(frame->data[0])[i]);
      most = std::max(most, v);
      if (v > 0.5F && first_loud < 0) first_loud = samples + i;
    }
    samples += frame->nb_samples;
  }
  EXPECT_EQ(samples, 48000);
  EXPECT_LE(most, 0.9F);
  EXPECT_NEAR(static_cast<double>(first_loud), 24000, 48);
}

TEST(Canvas, CropsOrLeavesBarsAndShinesThrough) {
  const av_ptr<AVFrame> white = make_picture(100, 100);
  for (int row = 0; row < 100; ++row) std::fill_n(pixel(*white, 0, 0, row), 100, uint8_t{235});
  for (int plane = 1; plane < 3; ++plane) {
    for (int row = 0; row < 50; ++row) std::fill_n(pixel(*white, plane, 0, row), 50, uint8_t{128});
  }
  const struct {
    bool fill;
    double alpha;
    int left;
    int middle;
  } rows[] = {{false, 1, 16, 235}, {true, 1, 235, 235}, {true, 0.5, 125, 125}};
  for (const auto& row : rows) {
    canvas c(400, 200);
    c.clear({0, 0, 0});
    tile t;
    t.width = 400;
    t.height = 200;
    t.fill = row.fill;
    t.alpha = row.alpha;
    c.draw(*white, t, 0);
    const AVFrame& got = c.picture();
    EXPECT_NEAR(*pixel(got, 0, 10, 100), row.left, 2);
    EXPECT_NEAR(*pixel(got, 0, 200, 100), row.middle, 2);
  }
}

}  // namespace
}  // namespace zelta::lay
