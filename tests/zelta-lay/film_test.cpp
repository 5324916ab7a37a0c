// SPDX-License-Identifier: Apache-2.0
// Films of small recordings, made by ffmpeg: each user one colour and one tone.
#include <algorithm>
#include <csignal>
#include <sstream>

#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include "canvas.h"
#include "film_fixture.h"
#include "label.h"
#include "limiter.h"
#include "new_file.h"
#include "stop_signal.h"

namespace zelta::lay {
namespace {

namespace fs = std::filesystem;

TEST_F(Film, ShowsWhoComesLateLateAndJoinsFiles) {
  record({{"1.mp4", 1, 0, 2}, {"1b.mp4", 1, 2, 4, "160x90"}, {"2.mp4", 2, 1, 3}});
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_NEAR(length_s(), 4, 0.05);
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
  EXPECT_NEAR(loudness(0.5), 0.35, 0.03) << "one channel is as loud in two";
  // Two tones of 0.35 that are one tone: together louder, and not clipped.
  EXPECT_GT(loudness(1.5), 1.15 * loudness(0.5));
  EXPECT_GT(loudness(2.0), 0.9 * loudness(1.5)) << "a join is heard";
}

TEST_F(Film, BeginsAndEndsWhereItIsTold) {
  record({{"1.mp4", 1, 0, 6}, {"2.mp4", 2, 3, 6}});
  asked_.from = "2";
  asked_.to = "2025-11-24T16:00:05Z";
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_NEAR(length_s(), 3, 0.05);
  EXPECT_FALSE(is_white(0.9, 480, 180));
  EXPECT_TRUE(is_white(1.1, 480, 180));
}

TEST_F(Film, SaysWhoItIsAndWhen) {
  record({{"1.mp4", 1, 0, 2}, {"2.mp4", 2, 0, 1}});
  asked_.names = asked_.clock = true;
  asked_.edl = path("call.edl");
  asked_.otio = path("call.otio");
  asked_.layout = "speaker";
  asked_.json = true;
  testing::internal::CaptureStdout();
  EXPECT_EQ(lay(asked_), kLaid);
  const std::string said = testing::internal::GetCapturedStdout();
  std::istringstream last(said.substr(said.rfind('\n', said.size() - 2) + 1));
  Json::Value end;
  last >> end;
  EXPECT_EQ(end["event"], "end");
  EXPECT_EQ(end["status"], 0);
  // The first user has all but a strip, with bars; the second is in the middle of the strip. Labels
  // are white on black.
  EXPECT_LT(brightness(0.5, {{560, 0}})[0], 30) << "the clock";
  const auto both = brightness(0.5, {{320, 285}, {320, 324}, {258, 357}});
  EXPECT_GT(both[0], 200) << "the speaker";
  EXPECT_GT(both[1], 200) << "the other";
  EXPECT_LT(both[2], 30) << "a name at the lower edge";
  const auto empty = brightness(1.8, {{260, 292}, {314, 318}});
  EXPECT_NEAR(empty[0], 40, 8) << "an empty tile";
  EXPECT_LT(empty[1], 30) << "a name in its middle";
  EXPECT_EQ(text_of("call.edl").rfind("TITLE: c\n", 0), 0U);
  std::istringstream otio(text_of("call.otio"));
  Json::Value timeline;
  otio >> timeline;
  EXPECT_EQ(timeline["tracks"]["children"].size(), 4U);
}

TEST_F(Film, IsMadeWithoutWhatIsBroken) {
  record({{"1.mp4", 1, 0, 1}, {"2.mp4", 2, 0, 1}, {"3.mp4", 3, 0, 1}});
  std::ofstream(path("2.mp4")) << "no media";
  fs::remove(path("3.mp4"));
  EXPECT_EQ(lay(asked_), kNotAll);
  EXPECT_TRUE(is_white(0.5, 160, 180));
  asked_.force = true;
  asked_.track = 1;
  EXPECT_EQ(lay(asked_), kLaid) << "nothing of this user is missing";
  asked_.track = 2;
  EXPECT_EQ(lay(asked_), kFailed);
  asked_.track = 3;
  EXPECT_EQ(lay(asked_), kUsage) << "there is no file to lay";
}

TEST_F(Film, MissesOnlyWhatItWouldHaveLaid) {
  part died = {"2b.mp4", 2, 3, 3.2};
  died.entry = R"("closed":"recorder died","audio_codec":"opus")";
  record({{"1.mp4", 1, 1, 6}, {"2.mp4", 2, 0, 2}, died, {"2c.mp4", 2, 5, 6}});
  fs::remove(path("2.mp4"));
  fs::remove(path("2b.mp4"));
  // The film's zero is the first file that is there, a second behind the first that isn't.
  const struct {
    const char* from;
    const char* to;
    int status;
  } rows[] = {{"", "", kNotAll},       {"1.1", "1.9", kLaid}, {"0.5", "1.5", kNotAll},
              {"1.5", "2.5", kNotAll}, {"3", "3.5", kNotAll}, {"4.1", "", kLaid},
              {"0", "0.5", kNotAll}};
  for (const auto& row : rows) {
    for (const uint32_t track : {0U, 2U}) {
      options o = asked_;
      o.force = true;
      o.from = row.from;
      o.to = row.to;
      if (track != 0) o.track = track;
      EXPECT_EQ(lay(o), row.status) << row.from << " to " << row.to << ", track " << track;
    }
  }
}

// What a recorder leaves that dies: fragments, the last of them cut off, and a manifest that is
// behind, or guesses.
TEST_F(Film, HasAllOfWhatADyingRecorderLeft) {
  const char* const behind = R"("closed":"recorder died","audio_codec":"opus")";
  const char* const guessed = R"("closed":"recorder died","audio_codec":"aac")";
  for (const char* const entry : {behind, guessed}) {
    part p = {"1.mp4", 1, 0, 0.2};
    p.media_s = 4;
    p.entry = entry;
    record({p});
    fs::resize_file(path("1.mp4"), fs::file_size(path("1.mp4")) * 3 / 4);
    asked_.track = 1;
    asked_.force = true;
    EXPECT_EQ(lay(asked_), kLaid);
    EXPECT_GT(length_s(), 1.9);
    EXPECT_LT(length_s(), 3.5);
    EXPECT_TRUE(is_white(1.5));
    EXPECT_GT(loudness(1.5), 0.3);
    std::string error;
    const auto sound = stream_reader::open(asked_.output, AVMEDIA_TYPE_AUDIO, error);
    ASSERT_NE(sound, nullptr) << error;
    EXPECT_EQ(sound->parameters().codec_id, AV_CODEC_ID_OPUS) << "copied, whatever was guessed";
  }
}

TEST_F(Film, DoesntEndWithADamagedTime) {
  record({{"1.mp4", 1, 0, 4}});
  std::string bytes = text_of("1.mp4");
  // When the two tracks of the fragment of the second second begin.
  size_t at = 0;
  for (int track = 0; track < 2; ++track) {
    at = bytes.find("tfdt", at + 1);
    ASSERT_NE(at, std::string::npos);
    bytes.replace(at + 8, 8, std::string("\0\0\x7f\xff\xff\xff\xff\xff", 8));
  }
  std::ofstream(path("1.mp4"), std::ios::binary) << bytes;
  for (const bool copied : {false, true}) {
    if (copied) asked_.track = 1;
    asked_.force = true;
    EXPECT_EQ(lay(asked_), kNotAll) << copied;
    EXPECT_NEAR(length_s(), 4, 0.1) << copied;
    for (const double at_s : {0.5, 2.5, 3.5}) {
      EXPECT_TRUE(is_white(at_s, 310, 170)) << copied << " " << at_s;
      EXPECT_GT(loudness(at_s), 0.3) << copied << " " << at_s;
    }
  }
}

TEST_F(Film, IsntMutedByATimeThatJumpsAheadAndComesBack) {
  const struct {
    const char* what;
    uint32_t track;
    double from_s, to_s, by_s;
  } rows[] = {{"sound's first packet", 2, -1, 0.001, 5},
              {"a packet of sound", 2, 2, 2.02, 5},
              {"a second of sound", 2, 2, 3, 4},
              {"a picture", 1, 2, 2.04, 5},
              {"a second of pictures", 1, 2, 3, 4},
              {"a picture behind the file's end", 1, 2, 2.04, 900}};
  for (const bool died : {false, true}) {
    part p = {"1.mp4", 1, 0, 8};
    p.mux = kFragments;
    // White but for a mark, so that a picture that stays isn't taken for those that should come.
    p.picture_filter = "drawbox=enable='between(t,3.4,3.8)':color=black:t=fill";
    if (died) p.entry = R"("closed":"recorder died","audio_codec":"opus")";
    record({p});
    const std::string whole = text_of(p.name);
    for (const auto& row : rows) {
      std::ofstream(path(p.name), std::ios::binary) << whole;
      move_fragments(p.name, row.track, row.from_s, row.to_s, row.by_s);
      for (const bool copied : {false, true}) {
        options o = asked_;
        o.force = true;
        if (copied) o.track = 1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(lay(o), kNotAll) << row.what << copied << died;
        EXPECT_NE(testing::internal::GetCapturedStderr().find("damaged times"), std::string::npos);
        EXPECT_NEAR(length_s(), 8, 0.1) << row.what << copied << died;
        for (const double at_s : {0.5, 2.5, 3.6, 5.0, 7.5}) {
          EXPECT_EQ(is_white(at_s), at_s != 3.6) << row.what << copied << died << " " << at_s;
          EXPECT_GT(loudness(at_s), 0.3) << row.what << copied << died << " " << at_s;
        }
      }
    }
  }
}

TEST_F(Film, LosesOneUserWhoseFileIsDamaged) {
  record({{"1.mp4", 1, 0, 3}, {"2.mp4", 2, 0, 3}});
  std::string bytes = text_of("2.mp4");
  const size_t media = bytes.rfind("mdat");
  ASSERT_NE(media, std::string::npos);
  for (size_t i = media + 4; i < std::min(media + 2000, bytes.size()); ++i) bytes[i] = '\x5a';
  std::ofstream(path("2.mp4"), std::ios::binary) << bytes;
  EXPECT_EQ(lay(asked_), kNotAll);
  for (const double at_s : {0.2, 1.5, 2.8}) {
    EXPECT_TRUE(is_white(at_s, 160, 180)) << at_s;
    EXPECT_GT(loudness(at_s), 0.3) << at_s;
  }
}

TEST_F(Film, StopsWherever) {
  record({{"1.mp4", 1, 0, 1}});
  part died = {"2.mp4", 2, 0, 1};
  died.entry = R"("closed":"recorder died","audio_codec":"opus")";
  const struct {
    const char* doing;
    void (*ask)(options&, const std::string&);
  } rows[] = {
      {"making a film", [](options&, const std::string&) {}},
      {"listening", [](options& o, const std::string&) { o.layout = "speaker"; }},
      {"copying", [](options& o, const std::string&) { o.track = 1; }},
      {"writing a list",
       [](options& o, const std::string& f) {
         o.output.clear();
         o.otio = f + "/a.otio";
       }},
  };
  for (const auto& row : rows) {
    options o = asked_;
    row.ask(o, folder_);
    EXPECT_EXIT(
        {
          watch_stop_signals();
          (void)std::raise(SIGTERM);
          _exit(lay(o));
        },
        testing::ExitedWithCode(143), "stopped; nothing is made")
        << row.doing;
  }
  record({died});
  EXPECT_EXIT(
      {
        watch_stop_signals();
        (void)std::raise(SIGINT);
        problems found;
        std::string error;
        try {
          (void)read_session(folder_, "", found, error);
        } catch (const stopped&) {
          _exit(3);
        }
        _exit(4);
      },
      testing::ExitedWithCode(3), "")
      << "measuring a file";
  for (const auto& entry : fs::directory_iterator(folder_)) {
    EXPECT_NE(entry.path().extension(), ".part") << entry.path();
  }
}

TEST_F(Film, IsMadeAndToldWhoeverListens) {
  record({{"1.mp4", 1, 0, 1}});
  const std::string tool = fs::read_symlink("/proc/self/exe").parent_path() / "zelta-lay";
  const std::string lay_it = "timeout 60 " + tool + " " + folder_ + " --json -o " + asked_.output;
  EXPECT_EQ(std::system((lay_it + " | true").c_str()), 0);
  EXPECT_TRUE(fs::exists(asked_.output));
  const std::string refused = lay_it + " --fps 0 2>/dev/null >" + path("said");
  EXPECT_EQ(WEXITSTATUS(std::system(refused.c_str())), kUsage);
  std::istringstream said(text_of("said"));
  Json::Value end;
  said >> end;
  EXPECT_EQ(end["event"], "end");
  EXPECT_EQ(end["status"], 2);
}

TEST_F(Film, IsRefusedBeforeAnythingIsLost) {
  record({{"1.mp4", 1, 0, 1}, {"2.mp4", 2, 0, 1}});
  std::ofstream(path("messages.jsonl")) << "hello";
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
      {"another user's file",
       [](options& o, const std::string& f) {
         o.output = f + "/2.mp4";
         o.track = 1;
         o.force = true;
       }},
      {"messages",
       [](options& o, const std::string& f) {
         o.otio = f + "/messages.jsonl";
         o.force = true;
       }},
      {"a recorder's name",
       [](options& o, const std::string& f) { o.output = f + "/7_20260131T120000000.mp4"; }},
      {"a folder",
       [](options& o, const std::string& f) {
         o.otio = f;
         o.force = true;
       }},
      {"one name twice",
       [](options& o, const std::string& f) {
         o.edl = f + "/a.edl";
         o.otio = f + "/./a.edl";
         o.track = 1;
       }},
      {"a rate of what is copied",
       [](options& o, const std::string&) {
         o.track = 1;
         o.fps_asked = true;
       }},
      {"no folder", [](options& o, const std::string& f) { o.output = f + "/no/a.mp4"; }},
      {"no recording", [](options& o, const std::string&) { o.folder = "/nowhere"; }},
      {"no such user", [](options& o, const std::string&) { o.track = 9; }},
      {"no such layout", [](options& o, const std::string&) { o.layout = "gird"; }},
      {"an empty span", [](options& o, const std::string&) { o.from = "5"; }},
      {"no time", [](options& o, const std::string&) { o.to = "soon"; }},
  };
  const auto all = [this] {
    std::vector<std::string> made;
    for (const auto& entry : fs::directory_iterator(folder_)) {
      made.push_back(text_of(entry.path().filename().string()));
    }
    return made;
  };
  const std::vector<std::string> before = all();
  for (const auto& row : rows) {
    options o = asked_;
    row.ask(o, folder_);
    EXPECT_EQ(lay(o), kUsage) << row.what;
    EXPECT_EQ(all(), before) << row.what;
  }
}

TEST_F(Film, TakesNobodysName) {
  std::string part;
  {
    new_file mine(asked_.output, false);
    new_file other(asked_.output, true);
    part = mine.part();
    EXPECT_NE(part, other.part());
    mine.write("mine");
    other.write("other");
    other.finish();
    EXPECT_THROW(mine.finish(), std::runtime_error);
  }
  EXPECT_EQ(text_of("film.mp4"), "other");
  EXPECT_FALSE(fs::exists(part));
}

TEST(Limiter, KeepsItsPlaceAndFullScale) {
  limiter l(1024);
  std::vector<float> pairs(96000, 0.1F);
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

TEST(Canvas, ShowsColoursAsTheyWereMeant) {
  // Red, as three ways to write it have it, and as films do.
  const struct {
    AVColorSpace space;
    AVColorRange range;
    int y, u, v;
  } rows[] = {{AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED, 81, 90, 240},
              {AVCOL_SPC_BT709, AVCOL_RANGE_MPEG, 63, 102, 240},
              {AVCOL_SPC_SMPTE170M, AVCOL_RANGE_JPEG, 76, 85, 255}};
  for (const auto& row : rows) {
    const av_ptr<AVFrame> red = make_picture(64, 64);
    red->colorspace = row.space;
    red->color_range = row.range;
    const int values[] = {row.y, row.u, row.v};
    for (int plane = 0; plane < 3; ++plane) {
      const int side = plane == 0 ? 64 : 32;
      for (int line = 0; line < side; ++line) {
        std::fill_n(pixel(*red, plane, 0, line), side, static_cast<uint8_t>(values[plane]));
      }
    }
    canvas c(64, 64);
    tile t;
    t.width = t.height = 64;
    for (int twice = 0; twice < 2; ++twice) ASSERT_TRUE(c.draw(*red, t, 0));
    const int expected[] = {81, 90, 240};
    for (int plane = 0; plane < 3; ++plane) {
      EXPECT_NEAR(*pixel(c.picture(), plane, 10, 10), expected[plane], 3) << row.space;
    }
  }
}

TEST(Label, StaysInItsTile) {
  for (const int most : {4, 20, 40, 100, 400}) {
    const label l = draw_label("a long name that has no room in its tile", 20, most);
    EXPECT_LE(l.width, most);
    EXPECT_EQ(l.cover.size(), static_cast<size_t>(l.width) * static_cast<size_t>(l.height));
  }
  EXPECT_EQ(draw_label("a", 20, 20).width, 0) << "not even an ellipsis has room";
}

}  // namespace
}  // namespace zelta::lay
