// SPDX-License-Identifier: Apache-2.0
// Recordings of real media through the engine.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "link/pipe_router.h"
#include "support/engine_probe.h"
#include "support/recording_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

TEST_F(RecordingTest, TwoUsersGiveTwoCompleteFilesAndAllEvents) {
  join("test:users=2,leave=2@2,size=320x180,fps=15",
       {{"joined room 77"}, {"first video", 2}, {"first audio", 2}, {"user out 2 0"}});
  release();
  EXPECT_EQ(handler.calls()[1], "user in 1 " + folder);
  EXPECT_NE(log().find("ended: exit status 0"), std::string::npos)
      << "a sanitizer finds: " << log();
  EXPECT_EQ(handler.count("first video 1 320 180 "), 1);
  EXPECT_EQ(handler.count("receiving 1 1"), 1);
  expect_whole_files(2);
  for (const Json::Value& file : files()) {
    EXPECT_EQ(codecs_of(path_of(file)), "h264 opus");
    expect_told_duration(file);
    EXPECT_EQ(fields(file, {"kind", "width", "closed"}),
              std::string("audio_video 320 ") +
                  (file["uid"].asInt() == 2 ? "user left" : "recording ended"));
    // Finalised: one index of all samples, as seeking wants it, and not the fragments' alone.
    EXPECT_GT(std::atoi(stream_of(path_of(file), "v", "nb_frames").c_str()), 20);
  }
  EXPECT_GT(files()[0]["duration_ms"].asInt(), 1800);
}

TEST_F(RecordingTest, ContainerFollowsTheCodecs) {
  // Who sends what, whether sound alone is recorded, and the file then.
  const std::tuple<const char*, bool, const char*, const char*> rows[] = {
      {"test:users=1,video=vp8", false, ".webm", "vp8 opus"},
      {"test:users=1,video=vp8,audio=pcmu", false, ".webm", "vp8 opus"},
      {"test:users=1,video=none,audio=pcma", false, ".m4a", "aac"},
      {"test:users=1,audio=none", false, ".mp4", "h264"},
      {"test:users=1,audio=aac", false, ".mp4", "h264 aac"},
      {"test:users=1", true, ".m4a", "opus"},
  };
  for (const auto& [server, audio_only, ending, codecs] : rows) {
    SCOPED_TRACE(server);
    config.isAudioOnly = audio_only;
    join(server);
    const bool video = std::string(ending) != ".m4a";
    ASSERT_TRUE(handler.wait_for(video ? "first video" : "first audio"));
    release();
    expect_whole_files(1);
    EXPECT_NE(path_of(0).find(ending), std::string::npos) << path_of(0);
    EXPECT_EQ(codecs_of(path_of(0)), codecs);
  }
}

TEST_F(RecordingTest, FilesThatComeAndGoAreUsersWhoComeAndGo) {
  const std::string kept = dir.path() + "channels/kept";
  const std::string made = dir.path() + "made.wav";
  std::ofstream(room() + "8.mp4") << "this is no media";
  make_media("sine=duration=60", made);
  make_media(
      "testsrc=rate=10:duration=1:size=160x120 -f lavfi -i sine=duration=1 -c:v libvpx -c:a "
      "libopus -f webm",
      kept);
  join_folder({{"user out 8"}});
  std::filesystem::rename(made, room() + "7.wav");
  ASSERT_TRUE(handler.wait_for("first audio 7"));
  std::filesystem::remove(room() + "7.wav");
  ASSERT_TRUE(handler.wait_for("user out 7"));
  for (int visit = 1; visit <= 2; ++visit) {
    std::filesystem::rename(kept, room() + "3.webm");
    ASSERT_TRUE(handler.wait_for("user out 3", visit));
    std::filesystem::rename(room() + "3.webm", kept);
  }
  release();
  expect_whole_files(3);  // nothing is left of the broken one
  for (const Json::Value& file : files()) {
    if (file["uid"] == 7) {
      EXPECT_LT(file["duration_ms"].asInt(), 5000) << "cut where the user left";
      EXPECT_LT(seconds_of(path_of(file)), 5);
    } else {
      EXPECT_NEAR(seconds_of(path_of(file)), 1.0, 0.1);
    }
  }
}

// What a file of a channel becomes: its pictures all there, in the codec that is kept; or why not.
TEST_F(RecordingTest, EveryFileOfAChannelIsRecordedOrToldAsMissing) {
  const struct {
    const char* name;
    const char* video;  // how it is made; null: the file isn't media
    const char* recorded;
    const char* missing;
  } rows[] = {
      {"1.mp4", "libx265 -x265-params log-level=none:bframes=2:keyint=10", "hevc aac", ""},
      {"2.mkv", "libx265 -x265-params log-level=none:bframes=2:keyint=10", "hevc aac", ""},
      {"3.mp4", "libaom-av1 -cpu-used 8 -g 10", "av1 aac", ""},
      {"4.webm", "libaom-av1 -cpu-used 8 -g 10 -c:a libopus", "av1 opus", ""},
      {"5.mov", "mpeg4", "h264 aac", ""},
      {"6.mpg", "mpeg2video -c:a mp2", "h264 aac", ""},
      {"13.avi", "mjpeg", "h264 aac", ""},
      // B-frames, so that decoding and presentation order differ.
      {"16.mp4", "libx264 -bf 2 -c:a aac", "h264 aac", ""},
      {"007.mp3", "none -c:a mp3", "aac", "7.wav: the uid is taken by 007.mp3"},
      {"7.wav", nullptr, "aac", ""},
      {"8.mkv", "prores", "aac", "video video/x-prores it is none of the codecs"},
      {"14.avi", "mjpeg -vf scale=8200:4400 -frames:v 1 -an", "",
       "video mjpeg its pictures are too large"},
      {"15.mp4",
       "libx264 -encryption_scheme cenc-aes-ctr -encryption_key 76a6c65c5ea762046bd749a2e632ccbb "
       "-encryption_kid a7e61c373e219033c21091fa607bf3b8",
       "", "video video/x-h264 it is encrypted, and no key to it is known\naudio audio/mpeg it is"},
      {"9.mp4", nullptr, "", "all  Could not determine type of stream"},
      {"10.SDP", nullptr, "", "all  10.SDP: it describes no stream"},
      {"alice.mp4", "mpeg4", "", "alice.mp4 is no user"},
      {".11.mp4", "mpeg4", "", ""},
      {"12.txt", nullptr, "", ""},
  };
  for (const auto& row : rows) {
    std::ofstream(room() + row.name) << "no media";
    if (row.video == nullptr) continue;
    const bool sound = std::strncmp(row.video, "none", 4) == 0;
    make_media(std::string("testsrc2=size=64x48:rate=10:duration=2 -f lavfi -i sine=duration=2 ") +
                   (sound ? "-map 1 " : "-c:v ") + (row.video + (sound ? 4 : 0)),
               room() + row.name);
  }
  join_folder({{"user in 16"}});
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(handler.wait_for("user out 16"));
  EXPECT_GT(std::chrono::steady_clock::now() - start, 1700ms) << "played in real time";
  ASSERT_TRUE(handler.wait_for("user out", 13));
  release();
  const Json::Value missing = manifest()["missing"];
  std::string all_missing;
  for (const Json::Value& gap : missing) {
    all_missing += fields(gap, {"medium", "codec", "reason"}) + "\n";
  }
  unsigned expected_missing = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    // Another file's may stand between the media of one.
    std::istringstream lines(row.missing);
    for (std::string line; std::getline(lines, line); ++expected_missing) {
      EXPECT_NE(all_missing.find(line), std::string::npos) << all_missing;
    }
    const int uid = std::atoi(row.name);
    std::string recorded;
    for (const Json::Value& file : files()) {
      if (file["uid"].asInt() != uid) continue;
      const std::string path = path_of(file);
      recorded += codecs_of(path);
      EXPECT_EQ(decode_errors_of(path), "");
      EXPECT_EQ(file["closed"], "end of media");
      EXPECT_NEAR(seconds_of(path), 2, 0.15);
      if (file["width"].asInt() == 0) continue;
      EXPECT_EQ(probed(path, "-select_streams v -count_frames -show_entries stream=nb_read_frames"),
                "20\n");
      if (uid != 16) continue;
      EXPECT_NEAR(seconds_of(path), 2, 0.1);
      const auto stream_hash = [](const std::string& of) {
        return output_of("ffmpeg -v error -i " + of +
                         " -map 0:v -c copy -bsf:v h264_mp4toannexb -f md5 -");
      };
      EXPECT_EQ(stream_hash(path), stream_hash(room() + row.name)) << "H.264 as it came";
    }
    EXPECT_EQ(recorded, row.recorded);
  }
  EXPECT_EQ(missing.size(), expected_missing) << all_missing;
  EXPECT_EQ(handler.count("error 2 1"), 7) << "not of one who is no user";
}

TEST_F(RecordingTest, FramesGoToTheApplicationInPlaceOfTheFile) {
  config.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  join("test:users=1,size=322x182,fps=10", {{"pcm 1 ", 30}, {"yuv 1 ", 5}});
  release();
  EXPECT_EQ(files().size(), 0U);
  expect_said("pcm", " 1 16 48000 960 1920 0");
  expect_said("yuv", " 322 182 324 164 164 ");
  config.decodeAudio = AUDIO_FORMAT_AAC_FRAME_TYPE;
  config.decodeVideo = VIDEO_FORMAT_H264_FRAME_TYPE;
  unsigned char first_bytes[4] = {};
  handler.also = [&](const std::string& call) {
    if (call.rfind("h264 1 ", 0) == 0 && first_bytes[3] == 0) {
      std::copy_n(handler.payload, 4, first_bytes);
    }
  };
  join("test:users=1", {{"aac 1 ", 20}, {"h264 1 ", 10}});
  release();
  handler.also = nullptr;
  EXPECT_EQ(first_bytes[3], 1) << "a start code";
}

TEST_F(RecordingTest, EveryWayToLeaveHasItsReasonAndCompleteFiles) {
  config.idleLimitSec = 3;
  join("test:users=1,leave=1@1");
  ASSERT_TRUE(handler.wait_for("leave 4")) << "nobody there for three seconds";
  release();
  EXPECT_EQ(handler.count("error"), 0) << "an application that leaves then sees no break";
  expect_whole_files(1);

  join("test:users=1", {{"first video"}});
  signal_recorder("TERM");
  ASSERT_TRUE(handler.wait_for("leave 2"));
  release();
  expect_whole_files(1);
}

TEST_F(RecordingTest, StoppedRecorderGoesOnInItsFiles) {
  join("test:users=1,size=320x180", {{"first video"}});
  ASSERT_TRUE(wait_recorded(1500));
  // Longer than a picture or sound may stay away.
  signal_recorder("STOP");
  output_of("sleep 4");
  signal_recorder("CONT");
  ASSERT_TRUE(wait_recorded(8000));
  release();
  expect_whole_files(1);
  EXPECT_EQ(files()[0]["kind"], "audio_video");
}

TEST_F(RecordingTest, DiskThatHangsOverTheManifestHoldsUpNoMedia) {
  const std::string recordings = fix_folder();
  // Opening it takes until somebody reads.
  const std::string pipe = recordings + "recording.json.new";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  join("test:users=1,size=320x180", {{"first video"}});
  std::string media;
  EXPECT_TRUE(wait_until([&] {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().extension() == ".mp4") media = entry.path().string();
    }
    return !media.empty() && std::filesystem::file_size(media) > 30'000;
  }));
  EXPECT_FALSE(std::filesystem::exists(folder + "recording.json"));
  EXPECT_NE(read_file(pipe), "");
  // In place of the pipe, which has become the manifest for a moment.
  ASSERT_TRUE(
      wait_until([this] { return std::filesystem::is_regular_file(folder + "recording.json"); }));
  ASSERT_TRUE(wait_recorded(1000));
  EXPECT_EQ(log().find("can't"), std::string::npos) << log();
  release();
  expect_whole_files(1);
  EXPECT_EQ(path_of(0), media);
}

TEST_F(RecordingTest, ShortageOfDescriptorsIsNoBrokenDisk) {
  config.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
  config.captureInterval = 1;
  join("test:users=2,join=2@2,size=320x180", {{"user in 1"}});
  const pid_t pid = std::atoi(recorder_pid().c_str());
  rlimit before{};
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, nullptr, &before), 0);
  // Enough for all but another user.
  const rlimit narrow{90, before.rlim_max};
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &narrow, nullptr), 0);
  ASSERT_TRUE(handler.wait_for("error 2 1"));
  // All that the first user's files need has been loaded, and a sanitizer has seen its kinds: it
  // looks at a new one by means of descriptors, and would find fault where there are none.
  ASSERT_TRUE(handler.wait_for("first video"));
  ASSERT_TRUE(handler.wait_for("first audio"));
  ASSERT_TRUE(wait_recorded(500));
  // It is their numbers that are limited, and the lower ones are in use; but who polls more than so
  // many is refused.
  const rlimit short_of{14, before.rlim_max};
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &short_of, nullptr), 0);
  for (const char* what : {"recording.json: Too many", "captured pictures, jpeg): Too many"}) {
    EXPECT_TRUE(wait_until([&] { return log().find(what) != std::string::npos; })) << what;
  }
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_TRUE(handler.wait_for("user in 2")) << "there is room again";
  ASSERT_TRUE(wait_recorded(500, 2));
  release();
  EXPECT_EQ(handler.count("leave 8"), 0);
  expect_whole_files(2);
  for (const Json::Value& one : files()) EXPECT_EQ(one["closed"], "recording ended");
}

// The recorder of one is killed: it loses a fragment and is continued, the other notices nothing.
TEST_F(RecordingTest, SessionsInOneFolderAreNothingToEachOther) {
  fix_folder();
  join("test:users=1,size=320x180");
  RecordingHandler other_handler;
  std::unique_ptr<IRecordingEngine, Releaser> other(
      IRecordingEngine::createZeltaRecordingEngine("app", &other_handler));
  ASSERT_TRUE(handler.wait_for("first video"));
  ASSERT_EQ(other->joinChannel("", "hall", 77, config), 0);
  ASSERT_TRUE(other_handler.wait_for("first video"));
  ASSERT_TRUE(other_handler.wait_for("first audio"));
  const auto hall = [this] { return read_json(folder + "recording_2.json")["files"]; };
  // Several fragments' worth, told by the manifest, which is written every two seconds.
  ASSERT_TRUE(wait_until([&] { return hall()[0]["duration_ms"].asInt() >= 2000; }));
  output_of("pkill -KILL -P " + std::to_string(getpid()) + " -f channel_id.hall");
  ASSERT_TRUE(other_handler.wait_for("warning 108"));
  ASSERT_TRUE(other_handler.wait_for("first video", 2));
  other.reset();
  const Json::Value of_hall = hall();
  release();
  EXPECT_EQ(handler.count("warning"), 0);
  expect_whole_files(1);
  EXPECT_EQ(files()[0]["closed"], "recording ended");
  ASSERT_EQ(of_hall.size(), 2U);
  EXPECT_EQ(of_hall[0]["closed"], "recorder died");
  EXPECT_GT(seconds_of(path_of(of_hall[0])), 1.0);
  EXPECT_EQ(of_hall[1]["channel_id"], "hall");
  for (const Json::Value& file : of_hall) EXPECT_EQ(decode_errors_of(path_of(file)), "") << file;
  for (const char* journal : {"journal.json", "journal_2.json"}) {
    EXPECT_FALSE(std::filesystem::exists(folder + journal)) << "nobody would read it any more";
  }
}

// With frames and a user, so that a report stands right before the leave.
TEST_F(RecordingTest, FilesAreCompleteAfterALeaveWithoutARelease) {
  setenv("ZELTA_CHANNEL_SERVER", "test:users=1,size=320x180", 1);
  config.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
  auto* const probe = new EngineProbe("app", &handler, new base::pipe_router(true));
  engine.reset(probe);
  handler.also = [probe](const std::string& call) {
    if (call.rfind("pcm", 0) == 0) probe->loopCnt_ = 3;
  };
  ASSERT_EQ(engine->joinChannel("", "room", 77, config), 0);
  folder = engine->getProperties()->storageDir;
  ASSERT_TRUE(wait_recorded(500));
  engine->leaveChannel();
  EXPECT_TRUE(wait_until([&] { return files()[0]["closed"] == "recording ended"; }));
  EXPECT_EQ(decode_errors_of(path_of(0)), "");
  release();
}

TEST_F(RecordingTest, ChannelThatCannotBeJoinedIsAnErrorThatSaysWhat) {
  const struct {
    const char* server;
    const char* says;
    const char* secret = nullptr;
  } rows[] = {
      {"", "set the environment variable ZELTA_CHANNEL_SERVER"},
      {"carrier-pigeon:", "unknown channel server \"carrier-pigeon:\""},
      {"test:users=many", "can't use \"users=many\""},
      {"dir:/nonexistent", "/nonexistent/room/"},
      {"test:users=1", "--encrypt_secret should be the base64 text of 16 bytes", "short"},
  };
  for (const auto& row : rows) {
    config.decryptionMode = const_cast<char*>(row.secret != nullptr ? "aes-128-gcm" : nullptr);
    config.secret = const_cast<char*>(row.secret);
    join(row.server);
    ASSERT_TRUE(handler.wait_for("error 1 2")) << row.server;
    release();
    EXPECT_NE(log().find(row.says), std::string::npos) << row.server;
    EXPECT_EQ(handler.calls().size(), 1U) << row.server;
  }
}

TEST_F(RecordingTest, RoundsLeaveNoDescriptorAndNoChild) {
  const char* const asked = std::getenv("ZELTA_ROUNDS");
  const int rounds = asked != nullptr ? std::atoi(asked) : 10;
  join("test:users=1,size=64x64");
  release();
  const int before = open_descriptors();
  for (int round = 0; round < rounds; ++round) {
    join("test:users=1,size=64x64", {{"user in 1"}});
    release();
  }
  // Logs of folders that were used within the last minute are still open.
  EXPECT_LE(open_descriptors() - before, std::min(rounds, 130));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace zelta::test
