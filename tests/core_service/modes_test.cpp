// SPDX-License-Identifier: Apache-2.0
// Every mode of the recorder through the engine: mixing, capture, frames, manual start, chunks,
// recovery, and disks that fail.
#include <algorithm>
#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
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
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      const std::string name = entry.path().filename();
      if (name.find(part) != std::string::npos) found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
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
  static std::string field(const std::string& file, const char* stream, const char* name) {
    std::string text = output_of(std::string("ffprobe -v error -select_streams ") + stream +
                                 " -show_entries stream=" + name + " -of csv=p=0 " + file);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }
  static std::string record_program() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zelta-record";
  }
  std::string image(const std::string& name, const char* colour_name) {
    std::string path = dir.path() + name;
    EXPECT_EQ(output_of(std::string("ffmpeg -v error -y -f lavfi -i color=") + colour_name +
                        ":s=64x36 -frames:v 1 " + path),
              "");
    return path;
  }
  void set_layout(std::vector<VideoMixingLayout::Region> regions, const char* background) {
    VideoMixingLayout layout;
    layout.canvasWidth = 320;
    layout.canvasHeight = 180;
    layout.backgroundColor = background;
    layout.regionCount = static_cast<uint32_t>(regions.size());
    layout.regions = regions.data();
    ASSERT_EQ(engine->setVideoMixingLayout(layout), 0);
  }
  static VideoMixingLayout::Region region(uint32_t uid, double x, double y, double w, double h) {
    VideoMixingLayout::Region r;
    r.uid = uid;
    r.x = x;
    r.y = y;
    r.width = w;
    r.height = h;
    r.renderMode = 1;
    return r;
  }
  void mix(const char* resolution, MIXED_AV_CODEC_TYPE how) {
    config.isMixingEnabled = true;
    config.mixedVideoAudio = how;
    config.mixResolution = const_cast<char*>(resolution);
  }
};

// ---- Mix -----------------------------------------------------------------------------------

TEST_F(ModesTest, MixFollowsProfileAndMuxing) {
  const struct {
    MIXED_AV_CODEC_TYPE how;
    AUDIO_PROFILE_TYPE sound;
    const char* profile;
    const char* channels;
    size_t files;
  } rows[] = {
      {MIXED_AV_CODEC_V1, AUDIO_PROFILE_DEFAULT, "Constrained Baseline", "1", 1},
      {MIXED_AV_CODEC_V2, AUDIO_PROFILE_HIGH_QUALITY_STEREO, "High", "2", 1},
      {MIXED_AV_DEFAULT, AUDIO_PROFILE_HIGH_QUALITY, "Constrained Baseline", "1", 2},
  };
  for (const auto& row : rows) {
    handler.clear();
    mix("320,180,15,300", row.how);
    config.audioProfile = row.sound;
    join("test:users=2,size=160x90,leave=2@1");
    ASSERT_TRUE(handler.wait_for("user out 2"));
    ASSERT_TRUE(wait_recorded(1500));
    release();
    ASSERT_EQ(files().size(), row.files);
    for (const Json::Value& entry : files()) {
      EXPECT_EQ(entry["uid"].asInt(), 0);
      EXPECT_EQ(entry["closed"].asString(), "recording ended");
      EXPECT_EQ(decode_errors_of(folder + entry["name"].asString()), "");
    }
    const std::string video = named(".mp4").at(0);
    const std::string sound = row.files == 2 ? named(".m4a").at(0) : video;
    EXPECT_EQ(field(video, "v", "profile"), row.profile);
    EXPECT_EQ(field(video, "v", "width,height,r_frame_rate"), "320,180,15/1");
    EXPECT_EQ(field(sound, "a", "channels"), row.channels);
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
  join("test:users=2,video=none");
  ASSERT_TRUE(handler.wait_for("first audio", 2));
  // The mix may be older than its users: what is looked at is what it had after they were heard.
  const int there = files()[0]["duration_ms"].asInt();
  ASSERT_TRUE(wait_recorded(there + 2000));
  set_layout({region(1, 0, 0, 0.5, 0.5), region(2, 0.5, 0.5, 0.5, 0.5)}, "#0000ff");
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
  join("test:users=1,video=none");
  ASSERT_TRUE(handler.wait_for("first audio"));
  set_layout({region(1, 0.5, 0, 0.5, 1)}, "#00ff00");
  ASSERT_TRUE(wait_recorded(3000));
  const int64_t killed = base::tick_ms();
  output_of("pkill -KILL -P " + std::to_string(getpid()) + " ZeltaCoreServic");
  ASSERT_TRUE(handler.wait_for("warning 108"));
  ASSERT_TRUE(handler.wait_for("first audio", 2));
  const int64_t away_ms = base::tick_ms() - killed;
  ASSERT_TRUE(wait_recorded(3000, 2));
  release();
  ASSERT_EQ(files().size(), 2U);
  for (const Json::Value& entry : files()) {
    const std::string file = folder + entry["name"].asString();
    EXPECT_EQ(colour(file, 0.5, 40, 90), "0f0") << "canvas";
    EXPECT_EQ(colour(file, 0.5, 280, 90), "f00") << "region";
  }
  const double missing = files()[1]["first_utc_ms"].asDouble() -
                         (files()[0]["first_utc_ms"].asDouble() +
                          seconds_of(folder + files()[0]["name"].asString()) * 1000);
  // A new recorder takes what it takes on this machine. With the old one is lost what was in work:
  // a fragment, and what the mix and its encoders held.
  EXPECT_LT(missing, static_cast<double>(away_ms + 1000)) << "ms between the two stretches";
}

// The decoder crashes where a decoder does: on the thread that decodes for the user. The first
// user's pictures are interlaced, which the compositor doesn't survive.
TEST_F(ModesTest, CrashOfADecoderCostsThePicturesOfThatUserAlone) {
  const std::string room = dir.path() + "channels/room/";
  std::filesystem::create_directories(room);
  const struct {
    const char* name;
    const char* colour;
    const char* coding;
  } users[] = {{"1.mp4", "red", "-flags +ilme+ildct -x264opts tff=1"},
               {"2.mp4", "white", ""},
               {"3.mp4", "lime", ""}};
  for (const auto& user : users) {
    std::string command = "ffmpeg -v error -f lavfi -i color=";
    command.append(user.colour).append(":s=128x72:r=25:d=20 -c:v libx264 -pix_fmt yuv420p ");
    command.append(user.coding).append(" ").append(room).append(user.name);
    ASSERT_EQ(output_of(command), "");
  }
  // A sanitizer would make an exit status of the crash, which is its way to tell of a find.
  for (const char* const name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* const given = std::getenv(name);
    setenv(name, ((given != nullptr ? std::string(given) + ":" : "") + "handle_segv=0").c_str(), 1);
  }
  for (const bool mixed : {false, true}) {
    SCOPED_TRACE(mixed ? "mix" : "frames");
    handler.clear();
    config.decodeVideo = mixed ? VIDEO_FORMAT_DEFAULT_TYPE : VIDEO_FORMAT_YUV_FRAME_TYPE;
    if (mixed) mix("320,180,15,800", MIXED_AV_CODEC_V1);
    config.isMixingEnabled = mixed;
    join("dir:" + dir.path() + "channels");
    ASSERT_TRUE(handler.wait_for("first video", 3));
    ASSERT_TRUE(mixed ? wait_recorded(2000) : handler.wait_for("yuv 2 ", 5));
    const std::string found = output_of("cd /proc && grep -lx d2:src $(pgrep -P " +
                                        std::to_string(getpid()) + " ZeltaCoreServic)/task/*/comm");
    int pid = 0;
    int thread = 0;
    ASSERT_EQ(std::sscanf(found.c_str(), "%d/task/%d/", &pid, &thread), 2) << found;
    ASSERT_EQ(syscall(SYS_tgkill, pid, thread, SIGSEGV), 0);
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
    const Json::Value missing = read_json(folder + "recording.json")["missing"];
    ASSERT_EQ(missing.size(), 1U);
    EXPECT_EQ(missing[0]["uid"].asInt(), 2);
    EXPECT_EQ(missing[0]["medium"].asString(), "decoded video");
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
    handler.clear();
    config.decodeVideo = how;
    config.isVideoOnly = how != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
    join("test:users=1,size=320x180");
    const bool packets = how == VIDEO_FORMAT_JPG_FRAME_TYPE;
    if (packets) {
      ASSERT_TRUE(handler.wait_for("jpg 1 ", 3));
    } else {
      ASSERT_TRUE(wait_until([this] { return named(".jpg").size() >= 3; }));
    }
    release();
    EXPECT_EQ(named(".jpg").empty(), packets);
    EXPECT_EQ(named(".mp4").size(), how == VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE ? 1U : 0U);
    EXPECT_TRUE(named(".new").empty());
    for (const std::string& path : named(".jpg")) {
      EXPECT_EQ(field(path, "v", "codec_name,width,height"), "mjpeg,320,180");
    }
    const Json::Value counted = read_json(folder + "recording.json")["pictures"];
    EXPECT_EQ(counted["1"].asUInt(), named(".jpg").size());
  }
}

TEST_F(ModesTest, MixedPcmHasUidZeroAndParametersChangeReports) {
  config.decodeAudio = AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE;
  join("test:users=2,video=none,leave=2@3");
  ASSERT_TRUE(handler.wait_for("pcm 0 ", 20));
  EXPECT_EQ(handler.count("volumes"), 0);
  auto* const impl = static_cast<RecordingEngineImpl*>(engine.get());
  impl->setParameters(R"({"audio_indication_interval": 100, "loudness": 1})");
  ASSERT_TRUE(handler.wait_for("volumes 1="));
  ASSERT_TRUE(handler.wait_for("speaker"));
  EXPECT_EQ(handler.count("pcm 1"), 0);
  release();
  EXPECT_NE(log().find("unknown parameter \"loudness\""), std::string::npos);
  for (const std::string& call : handler.calls()) {
    if (call.rfind("pcm", 0) == 0) {
      EXPECT_NE(call.find(" 1 16 48000 960 1920 0"), std::string::npos) << call;
    }
  }
}

TEST_F(ModesTest, PicturesSayHowTheyAreToBeTurned) {
  std::filesystem::create_directories(dir.path() + "channels/room");
  const std::string upright = dir.path() + "upright.mp4";
  ASSERT_EQ(output_of("ffmpeg -v error -f lavfi -i testsrc=rate=10:duration=2:size=160x120 -c:v "
                      "libx264 " +
                      upright),
            "");
  // The matrix that it writes turns by 270 degrees clockwise.
  ASSERT_EQ(output_of("ffmpeg -v error -i " + upright + " -c copy -metadata:s:v:0 rotate=90 " +
                      dir.path() + "channels/room/8.mp4"),
            "");
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  join("dir:" + dir.path() + "channels");
  ASSERT_TRUE(handler.wait_for("yuv 8 ", 3));
  release();
  for (const std::string& call : handler.calls()) {
    if (call.rfind("yuv", 0) != 0) continue;
    EXPECT_EQ(call.substr(call.rfind(' ')), " 270") << call;
  }
}

TEST_F(ModesTest, SlowApplicationLosesFramesAndNoRecording) {
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  // Holds up the engine's thread, and with it the pipe, while five seconds of pictures come.
  std::atomic<bool> hold{true};
  handler.also = [&hold, this](const std::string& call) {
    if (call.rfind("yuv", 0) != 0 || !hold.exchange(false)) return;
    wait_until([this] {
      const Json::Value all = files();
      return !all.empty() && all[0]["duration_ms"].asInt() >= 5000;
    });
  };
  join("test:users=1,size=1280x720,fps=25");
  ASSERT_TRUE(handler.wait_for("yuv 1 ", 40));
  release();
  handler.also = nullptr;
  ASSERT_EQ(files().size(), 1U) << "the sound, which nobody asked for, is recorded";
  EXPECT_NEAR(seconds_of(folder + files()[0]["name"].asString()) * 1000,
              files()[0]["duration_ms"].asDouble(), 100);
  const Json::Value dropped = read_json(folder + "recording.json")["dropped_frames"];
  EXPECT_GT(dropped["pictures"].asInt(), 20);
  EXPECT_EQ(dropped["sound"].asInt(), 0);
  EXPECT_NE(log().find("frames were dropped"), std::string::npos);
}

TEST_F(ModesTest, UsersForWhomDescriptorsDoNotSufficeCostTheOthersNothing) {
  const std::string record = record_program() + " room --json --duration 2 --server " +
                             "test:users=6,size=64x64 --record-file-root-dir " + dir.path() +
                             "; echo status $?";
  const struct {
    const char* limit;
    unsigned recorded;
    const char* status;
  } rows[] = {{"-n 128", 4, "status 5"}, {"-Sn 128", 6, "status 0"}};
  for (const auto& row : rows) {
    const std::string said = output_of(std::string("ulimit ") + row.limit + "; " + record);
    unsigned whole = 0;
    for (const std::string& line : lines_of(said)) {
      if (line.find("\"recording ended\"") != std::string::npos) ++whole;
    }
    EXPECT_EQ(whole, row.recorded) << said;
    EXPECT_NE(said.find(row.status), std::string::npos) << said;
  }
}

TEST_F(ModesTest, CommandLineKeepsFramesInFilesAndItsStatusSaysWhatHappened) {
  const auto run = [&](const std::string& arguments) {
    return output_of(record_program() + " room --record-file-root-dir " + dir.path() +
                     " --frames " + dir.path() + "frames --duration 2 " + arguments +
                     "; echo status $?");
  };
  const struct {
    const char* arguments;
    const char* status;
    std::vector<const char*> frames;
  } rows[] = {
      {"--server test:users=1,size=160x90 --decode-video 2 --decode-audio 2",
       "status 0",
       {"1_1.y4m", "1.wav"}},
      {"--server test:users=1,size=160x90 --decode-video 1 --decode-audio 1",
       "status 0",
       {"1.h264", "1.aac"}},
      {"--server test:users=2,size=160x90 --decode-audio 3", "status 0", {"0.wav"}},
      {"--server test:users=many --decode-audio 3", "status 1", {}},
      {"--decode-video nine", "status 2", {}},
  };
  for (const auto& row : rows) {
    std::filesystem::remove_all(dir.path() + "frames");
    const std::string said = run(row.arguments);
    EXPECT_NE(said.find(row.status), std::string::npos) << row.arguments << "\n" << said;
    for (const char* name : row.frames) {
      const std::string path = dir.path() + "frames/" + name;
      EXPECT_EQ(decode_errors_of(path), "") << name;
      EXPECT_GT(std::filesystem::file_size(path), 1000U) << name;
    }
  }
}

// ---- Start, stop, cut ----------------------------------------------------------------------

TEST_F(ModesTest, EveryManualStartOpensFilesAndEveryStopCompletesThem) {
  config.triggerMode = MANUALLY_MODE;
  join("test:users=1,size=320x180");
  ASSERT_TRUE(handler.wait_for("first video"));
  ASSERT_TRUE(handler.wait_for("joined"));
  EXPECT_TRUE(named("1_").empty());
  for (unsigned stretch = 1; stretch <= 2; ++stretch) {
    EXPECT_EQ(engine->startService(), 0);
    ASSERT_TRUE(wait_until([&] { return files().size() == stretch; }));
    ASSERT_TRUE(wait_recorded(1000));
    EXPECT_EQ(engine->stopService(), 0);
    ASSERT_TRUE(
        wait_until([&] { return files()[stretch - 1]["closed"].asString() == "service stopped"; }));
    const std::string path = folder + files()[stretch - 1]["name"].asString();
    EXPECT_EQ(decode_errors_of(path), "") << "complete while the recorder goes on";
    EXPECT_NEAR(seconds_of(path) * 1000, files()[stretch - 1]["duration_ms"].asDouble(), 100);
  }
  release();
  EXPECT_EQ(files().size(), 2U);
}

TEST_F(ModesTest, ChunksLaidEndToEndAreTheWhole) {
  std::filesystem::create_directories(dir.path() + "channels/room");
  const std::string user = dir.path() + "channels/room/5.mkv";
  ASSERT_EQ(output_of("ffmpeg -v error -f lavfi -i testsrc=size=160x120:rate=10:duration=24 -f "
                      "lavfi -i sine=duration=24 -c:v libx264 -bf 0 -g 20 -c:a libopus " +
                      user),
            "");
  const std::string cfg =
      dir.file("cfg.json", R"({"Chunk_Time_Span": "10", "Recording_Dir": ")" + dir.path() + "\"}");
  config.cfgFilePath = const_cast<char*>(cfg.c_str());
  config.channelProfile = CHANNEL_PROFILE_LIVE_BROADCASTING;
  join("dir:" + dir.path() + "channels");
  ASSERT_TRUE(handler.wait_for("user in 5"));
  ASSERT_TRUE(wait_until([this] { return files().size() == 2; }));
  ASSERT_TRUE(handler.wait_for("user out 5"));
  release();
  ASSERT_EQ(files().size(), 3U);
  int pictures = 0;
  int sounds = 0;
  for (Json::ArrayIndex i = 0; i < 3; ++i) {
    const std::string path = folder + files()[i]["name"].asString();
    pictures += std::atoi(field(path, "v", "nb_frames").c_str());
    sounds += std::atoi(field(path, "a", "nb_frames").c_str());
    EXPECT_EQ(decode_errors_of(path), "");
    if (i == 0) continue;
    const int64_t gap =
        files()[i]["first_utc_ms"].asInt64() - files()[i - 1]["last_utc_ms"].asInt64();
    EXPECT_LE(std::abs(gap), 25) << "an AAC frame is 21 ms";
  }
  EXPECT_EQ(pictures, 240);
  EXPECT_NEAR(sounds, 1125, 3) << "24 s of 1024 samples each";
  EXPECT_EQ(files()[0]["closed"].asString(), "chunk full");
}

TEST_F(ModesTest, UserWhoComesBackGetsANewFile) {
  std::filesystem::create_directories(dir.path() + "channels/room");
  const std::string kept = dir.path() + "channels/kept";
  const std::string user = dir.path() + "channels/room/3.webm";
  ASSERT_EQ(
      output_of("ffmpeg -v error -f lavfi -i testsrc=rate=10:duration=1:size=160x120 -f lavfi "
                "-i sine=duration=1 -c:v libvpx -c:a libopus -f webm " +
                kept),
      "");
  join("dir:" + dir.path() + "channels");
  ASSERT_TRUE(handler.wait_for("joined"));
  for (int visit = 1; visit <= 2; ++visit) {
    std::filesystem::rename(kept, user);
    ASSERT_TRUE(handler.wait_for("user out 3", visit));
    std::filesystem::rename(user, kept);
  }
  release();
  ASSERT_EQ(files().size(), 2U);
  for (const Json::Value& entry : files()) {
    const std::string path = folder + entry["name"].asString();
    EXPECT_EQ(decode_errors_of(path), "");
    EXPECT_NEAR(seconds_of(path), 1.0, 0.1);
  }
}

// ---- Disks and secrets ---------------------------------------------------------------------

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

TEST_F(ModesTest, SecretsStandInNoArgumentAndNoPrivilegeIsGained) {
  config.decryptionMode = const_cast<char*>("aes-128-gcm");
  config.secret = const_cast<char*>("AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGw==");
  join("test:users=1,size=160x90");
  ASSERT_TRUE(handler.wait_for("joined"));
  const std::string pid =
      lines_of(output_of("pgrep -P " + std::to_string(getpid()) + " ZeltaCoreServic")).at(0);
  const std::string arguments = read_file("/proc/" + pid + "/cmdline");
  EXPECT_NE(arguments.find("--encrypt_secret"), std::string::npos);
  EXPECT_EQ(arguments.find("AAECAwQ"), std::string::npos);
  EXPECT_NE(read_file("/proc/" + pid + "/status").find("NoNewPrivs:\t1"), std::string::npos);
  // The files of a process that may not be dumped belong to root.
  release();
  config.secret = const_cast<char*>("short");
  handler.clear();
  join("test:users=1");
  ASSERT_TRUE(handler.wait_for("error 1 2"));
  release();
  EXPECT_NE(log().find("--encrypt_secret should be the base64 text of 16 bytes"),
            std::string::npos);
}

}  // namespace
}  // namespace zelta::test
