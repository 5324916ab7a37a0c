// SPDX-License-Identifier: Apache-2.0
// Every mode of the recorder through the engine: mixing, capture, frames, manual start, chunks,
// recovery, and disks that fail.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include "base/clocks.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "support/recording_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

class ModesTest : public RecordingTest {
 protected:
  // The files whose name has `part` in it.
  std::vector<std::string> named(const std::string& part) const {
    return lines_of(
        output_of("find " + folder + " -mindepth 1 -maxdepth 1 -name '*" + part + "*' | sort"));
  }
  // The colour of a picture of `file` at `seconds` from its end, as "rrggbb" with a digit of 0 to f
  // for each, so that an encoder's errors don't show.
  static std::string colour(const std::string& file, double from_end, int x, int y) {
    const std::string raw =
        output_of("ffmpeg -v error -sseof -" + std::to_string(from_end) + " -i " + file +
                  " -frames:v 1 -vf crop=2:2:" + std::to_string(x) + ":" + std::to_string(y) +
                  ",scale=1:1 -f rawvideo -pix_fmt rgb24 - | od -An -tu1");
    int r = -1;
    int g = -1;
    int b = -1;
    std::istringstream(raw) >> r >> g >> b;
    const auto digit = [](int value) { return value < 64 ? '0' : value < 192 ? '8' : 'f'; };
    return {digit(r), digit(g), digit(b)};
  }
  std::string image(const std::string& name, const char* colour_name) {
    make_media(std::string("color=") + colour_name + ":s=64x36 -frames:v 1", dir.path() + name);
    return dir.path() + name;
  }
  // Regions as uid, x, y, width and height.
  using place = std::tuple<uint32_t, double, double, double, double>;
  void set_layout(const std::vector<place>& places, const char* background) {
    std::vector<VideoMixingLayout::Region> regions(places.size());
    for (size_t i = 0; i < places.size(); ++i) {
      VideoMixingLayout::Region& r = regions[i];
      std::tie(r.uid, r.x, r.y, r.width, r.height) = places[i];
      r.renderMode = 1;
    }
    VideoMixingLayout layout;
    layout.canvasWidth = 320;
    layout.canvasHeight = 180;
    layout.backgroundColor = background;
    layout.regionCount = static_cast<uint32_t>(regions.size());
    layout.regions = regions.data();
    ASSERT_EQ(engine->setVideoMixingLayout(layout), 0);
  }
  void mix(const char* resolution, MIXED_AV_CODEC_TYPE how) {
    config.isMixingEnabled = true;
    config.mixedVideoAudio = how;
    config.mixResolution = const_cast<char*>(resolution);
  }
};

// ---- Mix -----------------------------------------------------------------------------------

TEST_F(ModesTest, MixFollowsProfileAndMuxing) {
  // With the profile of its H.264, its channels, and how many files there are.
  const std::tuple<MIXED_AV_CODEC_TYPE, AUDIO_PROFILE_TYPE, const char*, const char*, unsigned>
      rows[] = {
          {MIXED_AV_CODEC_V1, AUDIO_PROFILE_DEFAULT, "Constrained Baseline", "1", 1},
          {MIXED_AV_CODEC_V2, AUDIO_PROFILE_HIGH_QUALITY_STEREO, "High", "2", 1},
          {MIXED_AV_DEFAULT, AUDIO_PROFILE_HIGH_QUALITY, "Constrained Baseline", "1", 2},
      };
  for (const auto& [how, sound_profile, profile, channels, count] : rows) {
    mix("320,180,15,300", how);
    config.audioProfile = sound_profile;
    join("test:users=2,size=160x90,leave=2@1", {{"user out 2"}});
    ASSERT_TRUE(wait_recorded(1500));
    release();
    expect_whole_files(count);
    for (const Json::Value& entry : files()) {
      EXPECT_EQ(fields(entry, {"uid", "closed"}), "0 recording ended");
    }
    const std::string video = named(".mp4").at(0);
    const std::string sound = count == 2 ? named(".m4a").at(0) : video;
    EXPECT_EQ(stream_of(video, "v", "profile"), profile);
    EXPECT_EQ(stream_of(video, "v", "width,height,r_frame_rate"), "320,180,15/1");
    EXPECT_EQ(stream_of(sound, "a", "channels"), channels);
    EXPECT_NEAR(seconds_of(video), seconds_of(sound), 0.15);
  }
}

// The test channel's pictures are dark with a white ball; its users are told from the canvas by
// where the canvas shows.
TEST_F(ModesTest, LayoutAndBackgroundsAreShownAndChanged) {
  mix("320,180,15,800", MIXED_AV_CODEC_V1);
  const std::string red = image("red.png", "red");
  const std::string green = image("green.jpg", "lime");
  config.defaultUserBg = const_cast<char*>(red.c_str());
  join("test:users=2,video=none", {{"first audio", 2}});
  // The mix may be older than its users: what is looked at is what it had after they were heard.
  const int there = files()[0]["duration_ms"].asInt();
  ASSERT_TRUE(wait_recorded(there + 2000));
  set_layout({{1, 0, 0, 0.5, 0.5}, {2, 0.5, 0.5, 0.5, 0.5}}, "#0000ff");
  engine->setUserBackground(2, green.c_str());
  engine->setUserBackground(1, "/nonexistent.png");
  const int changed = files()[0]["duration_ms"].asInt();
  ASSERT_TRUE(wait_recorded(changed + 4000));
  release();
  const std::string file = named(".mp4").at(0);
  const double before = seconds_of(file) - changed / 1000.0 + 0.5;
  EXPECT_EQ(colour(file, before, 80, 90), "f00") << "a grid of two at first";
  EXPECT_EQ(colour(file, before, 240, 90), "f00");
  EXPECT_EQ(colour(file, 0.5, 80, 45), "f00") << "region of user 1, whose image stays";
  EXPECT_EQ(colour(file, 0.5, 240, 135), "0f0") << "region of user 2";
  EXPECT_EQ(colour(file, 0.5, 240, 45), "00f") << "canvas";
  EXPECT_NE(log().find("/nonexistent.png: No such file"), std::string::npos);
}

TEST_F(ModesTest, BrokenBackgroundIsAWarningAndCanvasImageLiesBehindAll) {
  mix("320,180,15,800", MIXED_AV_CODEC_V1);
  const std::string green = image("green.png", "lime");
  const std::string broken = dir.file("broken.png", "\x89PNG\r\n\x1a\n and no more");
  config.defaultVideoBg = const_cast<char*>(green.c_str());
  config.defaultUserBg = const_cast<char*>(broken.c_str());
  join("test:users=1,video=none");
  ASSERT_TRUE(wait_recorded(2500));
  release();
  EXPECT_EQ(colour(named(".mp4").at(0), 0.5, 160, 90), "0f0");
  EXPECT_NE(log().find("broken.png is broken"), std::string::npos);
}

TEST_F(ModesTest, KilledMixGoesOnWithItsLayout) {
  mix("320,180,15,800", MIXED_AV_CODEC_V1);
  const std::string red = image("red.png", "red");
  config.defaultUserBg = const_cast<char*>(red.c_str());
  join("test:users=1,video=none", {{"first audio"}});
  set_layout({{1, 0.5, 0, 0.5, 1}}, "#00ff00");
  ASSERT_TRUE(wait_recorded(3000));
  const int64_t killed = base::tick_ms();
  signal_recorder("KILL");
  ASSERT_TRUE(handler.wait_for("warning 108"));
  ASSERT_TRUE(handler.wait_for("first audio", 2));
  const int64_t away_ms = base::tick_ms() - killed;
  ASSERT_TRUE(wait_recorded(3000, 2));
  release();
  ASSERT_EQ(files().size(), 2U);
  for (const Json::Value& entry : files()) {
    EXPECT_EQ(colour(path_of(entry), 0.5, 40, 90), "0f0") << "canvas";
    EXPECT_EQ(colour(path_of(entry), 0.5, 280, 90), "f00") << "region";
  }
  const double missing = files()[1]["first_utc_ms"].asDouble() -
                         (files()[0]["first_utc_ms"].asDouble() + seconds_of(path_of(0)) * 1000);
  // A new recorder takes what it takes on this machine. With the old one is lost what was in work:
  // a fragment, and what the mix and its encoders held.
  EXPECT_LT(missing, static_cast<double>(away_ms + 1000)) << "ms between the two stretches";
}

// The decoder crashes where a decoder does: on the thread that decodes for the user. The first
// user's pictures are interlaced, which the compositor doesn't survive.
TEST_F(ModesTest, CrashOfADecoderCostsThePicturesOfThatUserAlone) {
  for (const auto& [name, picture, coding] :
       {std::tuple("1.mp4", "red", "-flags +ilme+ildct -x264opts tff=1"),
        {"2.mp4", "white", ""},
        {"3.mp4", "lime", ""}}) {
    make_media(std::string("color=") + picture +
                   ":s=128x72:r=25:d=20 -c:v libx264 -pix_fmt yuv420p " + coding,
               room() + name);
  }
  // A sanitizer would make an exit status of the crash, which is its way to tell of a find.
  for (const char* const name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* const given = std::getenv(name);
    setenv(name, ((given != nullptr ? std::string(given) + ":" : "") + "handle_segv=0").c_str(), 1);
  }
  for (const bool mixed : {false, true}) {
    SCOPED_TRACE(mixed ? "mix" : "frames");
    config.decodeVideo = mixed ? VIDEO_FORMAT_DEFAULT_TYPE : VIDEO_FORMAT_YUV_FRAME_TYPE;
    if (mixed) mix("320,180,15,800", MIXED_AV_CODEC_V1);
    config.isMixingEnabled = mixed;
    join_folder({{"first video", 3}});
    ASSERT_TRUE(mixed ? wait_recorded(2000) : handler.wait_for("yuv 2 ", 5));
    const pid_t pid = std::atoi(recorder_pid().c_str());
    const std::string found =
        output_of("cd /proc/" + std::to_string(pid) + "/task && grep -lx d2:src */comm");
    ASSERT_EQ(syscall(SYS_tgkill, pid, std::atoi(found.c_str()), SIGSEGV), 0) << found;
    ASSERT_TRUE(handler.wait_for("warning 108"));
    ASSERT_TRUE(handler.wait_for("error 2 1"));
    ASSERT_TRUE(mixed ? wait_recorded(4000, 2) : handler.wait_for("first video", 5));
    const int frames_of_2 = handler.count("yuv 2 ");
    if (!mixed) {
      ASSERT_TRUE(handler.wait_for("yuv 3 ", handler.count("yuv 3 ") + 20));
    }
    release();
    EXPECT_EQ(handler.count("warning 108"), 1);
    EXPECT_EQ(handler.count("yuv 2 "), frames_of_2);
    const Json::Value missing = manifest()["missing"];
    ASSERT_EQ(missing.size(), 1U) << missing;
    EXPECT_EQ(fields(missing[0], {"uid", "medium"}), "2 decoded video");
    EXPECT_TRUE(named("crash").empty());
    if (!mixed) continue;
    const std::string second = named(".mp4").at(1);
    EXPECT_EQ(colour(second, 0.5, 80, 45), "f00");
    EXPECT_EQ(colour(second, 0.5, 240, 45), "000") << "user 2";
    const std::string third = colour(second, 0.5, 160, 135) + colour(second, 0.5, 80, 135);
    EXPECT_NE(third.find("0f0"), std::string::npos) << third;
  }
}

// ---- Capture and frames --------------------------------------------------------------------

TEST_F(ModesTest, CaptureGoesToPacketsFilesOrBoth) {
  config.captureInterval = 1;
  for (const VIDEO_FORMAT_TYPE how : {VIDEO_FORMAT_JPG_FRAME_TYPE, VIDEO_FORMAT_JPG_FILE_TYPE,
                                      VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE}) {
    config.decodeVideo = how;
    config.isVideoOnly = how != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
    join("test:users=1,size=320x180");
    const bool packets = how == VIDEO_FORMAT_JPG_FRAME_TYPE;
    ASSERT_TRUE(packets ? handler.wait_for("jpg 1 ", 3)
                        : wait_until([this] { return named(".jpg").size() >= 3; }));
    release();
    EXPECT_EQ(named(".jpg").empty(), packets);
    EXPECT_EQ(named(".mp4").size(), how == VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE ? 1U : 0U);
    EXPECT_TRUE(named(".new").empty());
    for (const std::string& path : named(".jpg")) {
      EXPECT_EQ(stream_of(path, "v", "codec_name,width,height"), "mjpeg,320,180");
    }
    EXPECT_EQ(manifest()["pictures"]["1"].asUInt(), named(".jpg").size());
  }
}

TEST_F(ModesTest, MixedPcmHasUidZeroAndParametersChangeReports) {
  config.decodeAudio = AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE;
  join("test:users=2,video=none,leave=2@3", {{"pcm 0 ", 20}});
  EXPECT_EQ(handler.count("volumes"), 0);
  auto* const impl = static_cast<RecordingEngineImpl*>(engine.get());
  impl->setParameters(R"({"audio_indication_interval": 100, "loudness": 1})");
  ASSERT_TRUE(handler.wait_for("volumes 1="));
  ASSERT_TRUE(handler.wait_for("speaker"));
  EXPECT_EQ(handler.count("pcm 1"), 0);
  release();
  EXPECT_NE(log().find("unknown parameter \"loudness\""), std::string::npos);
  expect_said("pcm", " 1 16 48000 960 1920 0");
}

TEST_F(ModesTest, PicturesSayHowTheyAreToBeTurned) {
  const std::string upright = dir.path() + "upright.mp4";
  make_media("testsrc=rate=10:duration=2:size=160x120 -c:v libx264", upright);
  // The matrix that it writes turns by 270 degrees clockwise.
  ASSERT_EQ(output_of("ffmpeg -v error -i " + upright + " -c copy -metadata:s:v:0 rotate=90 " +
                      room() + "8.mp4"),
            "");
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  join_folder({{"yuv 8 ", 3}});
  release();
  for (const std::string& call : handler.calls()) {
    if (call.rfind("yuv", 0) != 0) continue;
    EXPECT_EQ(call.substr(call.rfind(' ')), " 270") << call;
  }
}

TEST_F(ModesTest, PicturesThatCannotBeDecodedCostNoSound) {
  const std::string media = dir.path() + "whole.mkv";
  make_media(
      "testsrc=rate=10:duration=2:size=160x120 -f lavfi -i sine=duration=6 -c:v libvpx -c:a aac",
      media);
  std::string bytes = output_of("cat " + media);
  // The size of a key frame's first part, which is then more than there is (RFC 6386, section 9.1).
  const std::string start_code = "\x9d\x01\x2a";
  for (size_t at = bytes.find(start_code); at != std::string::npos;
       at = bytes.find(start_code, at + 1)) {
    bytes[at - 1] = bytes[at - 2] = '\xff';
  }
  std::ofstream(room() + "8.mkv", std::ios::binary) << bytes;
  config.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
  join_folder({{"user in 8"}});
  ASSERT_TRUE(handler.wait_for("user out 8"));
  release();
  const Json::Value missing = manifest()["missing"][0];
  EXPECT_EQ(fields(missing, {"uid", "medium"}), "8 decoded video");
  EXPECT_NE(missing["reason"].asString().find("vp8dec"), std::string::npos) << missing;
  ASSERT_EQ(files().size(), 2U);
  const std::string loudness =
      output_of("ffmpeg -hide_banner -nostats -sseof -1 -i " + path_of(1) +
                " -af volumedetect -f null - 2>&1 | grep -c 'mean_volume: -2'");
  EXPECT_EQ(loudness, "1\n") << "silence is at -91 dB";
}

TEST_F(ModesTest, SlowApplicationLosesFramesAndNoRecording) {
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  // Holds up the engine's thread, and with it the pipe, while five seconds of pictures come.
  std::atomic<bool> hold{true};
  handler.also = [&hold, this](const std::string& call) {
    if (call.rfind("yuv", 0) != 0 || !hold.exchange(false)) return;
    wait_recorded(5000);
  };
  join("test:users=1,size=1280x720,fps=25", {{"yuv 1 ", 40}});
  release();
  handler.also = nullptr;
  ASSERT_EQ(files().size(), 1U) << "the sound, which nobody asked for, is recorded";
  expect_told_duration(files()[0]);
  const Json::Value dropped = manifest()["dropped_frames"];
  EXPECT_GT(dropped["pictures"].asInt(), 20);
  EXPECT_EQ(dropped["sound"].asInt(), 0);
  EXPECT_NE(log().find("frames were dropped"), std::string::npos);
}

TEST_F(ModesTest, UsersForWhomDescriptorsDoNotSufficeCostTheOthersNothing) {
  const std::string program =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zelta-record";
  const std::string record = program + " room --json --duration 2 --server " +
                             "test:users=6,size=64x64 --record-file-root-dir " + dir.path() +
                             "; echo status $?";
  const std::tuple<const char*, unsigned, const char*> rows[] = {{"-n 128", 4, "status 5"},
                                                                 {"-Sn 128", 6, "status 0"}};
  for (const auto& [limit, recorded, status] : rows) {
    const std::string said = output_of(std::string("ulimit ") + limit + "; " + record);
    unsigned whole = 0;
    for (const std::string& line : lines_of(said)) {
      if (line.find("\"recording ended\"") != std::string::npos) ++whole;
    }
    EXPECT_EQ(whole, recorded) << said;
    EXPECT_NE(said.find(status), std::string::npos) << said;
  }
}

// ---- Start, stop, cut ----------------------------------------------------------------------

TEST_F(ModesTest, EveryManualStartOpensFilesAndEveryStopCompletesThem) {
  config.triggerMode = MANUALLY_MODE;
  join("test:users=1,size=320x180", {{"first video"}, {"joined"}});
  EXPECT_TRUE(named("1_").empty());
  for (unsigned stretch = 1; stretch <= 2; ++stretch) {
    EXPECT_EQ(engine->startService(), 0);
    ASSERT_TRUE(wait_until([&] { return files().size() == stretch; }));
    ASSERT_TRUE(wait_recorded(1000));
    EXPECT_EQ(engine->stopService(), 0);
    ASSERT_TRUE(wait_until([&] { return files()[stretch - 1]["closed"] == "service stopped"; }));
    expect_whole_files(stretch);  // while the recorder goes on
    expect_told_duration(files()[stretch - 1]);
  }
  release();
  EXPECT_EQ(files().size(), 2U);
}

TEST_F(ModesTest, ChunksLaidEndToEndAreTheWhole) {
  make_media(
      "testsrc=size=160x120:rate=10:duration=24 -f lavfi -i sine=duration=24 -c:v libx264 -bf 0 "
      "-g 20 -c:a libopus",
      room() + "5.mkv");
  const std::string cfg =
      dir.file("cfg.json", R"({"Chunk_Time_Span": "10", "Recording_Dir": ")" + dir.path() + "\"}");
  config.cfgFilePath = const_cast<char*>(cfg.c_str());
  config.channelProfile = CHANNEL_PROFILE_LIVE_BROADCASTING;
  join_folder({{"user in 5"}});
  ASSERT_TRUE(wait_until([this] { return files().size() == 2; }));
  ASSERT_TRUE(handler.wait_for("user out 5"));
  release();
  expect_whole_files(3);
  int pictures = 0;
  int sounds = 0;
  for (const Json::Value& file : files()) {
    pictures += std::atoi(stream_of(path_of(file), "v", "nb_frames").c_str());
    sounds += std::atoi(stream_of(path_of(file), "a", "nb_frames").c_str());
  }
  expect_no_gaps(25);  // a frame of Opus is 20 ms
  EXPECT_EQ(pictures, 240);
  EXPECT_NEAR(sounds, 1200, 3) << "24 s of 20 ms each";
  EXPECT_EQ(files()[0]["closed"], "chunk full");
}

// ---- Disks ---------------------------------------------------------------------------------

TEST_F(ModesTest, FullDiskKeepsWhatIsWrittenAndEndsWithReasonEight) {
  const std::string disk = dir.path() + "disk/";
  std::filesystem::create_directory(disk);
  if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "no right to mount a small disk here";
  }
  config.recordFileRootDir = const_cast<char*>(disk.c_str());
  join("test:users=2,size=640x360");
  EXPECT_TRUE(handler.wait_for("error 1 1"));
  EXPECT_TRUE(handler.wait_for("leave 8"));
  release();
  int playable = 0;
  for (const std::string& path : named(".mp4")) playable += seconds_of(path) > 1 ? 1 : 0;
  EXPECT_EQ(playable, 2) << "both users' files";
  engine.reset();
  EXPECT_EQ(umount2(disk.c_str(), MNT_DETACH), 0);
}

TEST_F(ModesTest, RemovedFolderIsAnErrorToo) {
  join("test:users=1,size=160x90");
  ASSERT_TRUE(wait_recorded(500));
  std::filesystem::remove_all(folder);
  EXPECT_TRUE(handler.wait_for("error 1 1"));
  EXPECT_TRUE(handler.wait_for("leave 8"));
  release();
}

}  // namespace
}  // namespace zelta::test
