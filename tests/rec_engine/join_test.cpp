// SPDX-License-Identifier: Apache-2.0
// What a join does before a recorder runs: checks, file lookups, folder, command line.
#include <algorithm>
#include <cerrno>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/engine_probe.h"

namespace zelta::test {
namespace {

using Mutate = std::function<void(RecordingConfig&)>;

char* text(const char* value) {
  return const_cast<char*>(value);
}

// ---- Checks --------------------------------------------------------------------------------

struct CheckRow {
  const char* name;
  Mutate mutate;
  int code;
  const char* line;  // empty: nothing is logged
};

#define SET(...) [](RecordingConfig& c) { __VA_ARGS__; }

const CheckRow kCheckRows[] = {
    {"defaults", SET((void)c), 0, ""},
    {"low port negative", SET(c.lowUdpPort = -1; c.isAudioOnly = c.isVideoOnly = true), -2,
     "Invalid port range! [-1, 0)"},
    {"high port negative", SET(c.highUdpPort = -5), -2, "Invalid port range! [0, -5)"},
    {"low port too high", SET(c.lowUdpPort = 65536), -2, "Invalid port range! [65536, 0)"},
    {"high port has no bound", SET(c.highUdpPort = 70000), 0, ""},
    {"both media flags",
     SET(c.isAudioOnly = c.isVideoOnly = true; c.lowUdpPort = 5; c.highUdpPort = 4), -2,
     "Can't apply both isAudioOnly & isVideoOnly at same time."},
    {"span of two",
     SET(c.lowUdpPort = 40000; c.highUdpPort = 40002; c.isMixingEnabled = true;
         c.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE),
     -2, "Udp port range should contain at least 3 ports: [40000, 40002)"},
    {"span of three", SET(c.lowUdpPort = 40000; c.highUdpPort = 40003), 0, ""},
    {"span reversed", SET(c.lowUdpPort = 50000; c.highUdpPort = 40000), -2,
     "Udp port range should contain at least 3 ports: [50000, 40000)"},
    {"mix with audio frames",
     SET(c.isMixingEnabled = true; c.decodeAudio = AUDIO_FORMAT_AAC_FRAME_TYPE;
         c.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE),
     -2, "ERROR:raw audio data feature wasn't supported in mix mode !!!"},
    {"mix with video frames",
     SET(c.isMixingEnabled = true; c.decodeVideo = VIDEO_FORMAT_JPG_FILE_TYPE;
         c.isAudioOnly = true),
     -2, "ERROR:raw video data feature wasn't supported in mix mode !!!"},
    {"audio frames of video only",
     SET(c.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE; c.isVideoOnly = true), -2,
     "ERROR:decodeAudio feature wasn't supported with videoOnly & capture mode !!!"},
    {"audio frames with capture",
     SET(c.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE; c.decodeVideo = VIDEO_FORMAT_JPG_FRAME_TYPE),
     -2, "ERROR:decodeAudio feature wasn't supported with videoOnly & capture mode !!!"},
    {"audio frames beside pictures",
     SET(c.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
         c.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE),
     0, ""},
    {"audio only with video frames",
     SET(c.isAudioOnly = true; c.decodeVideo = VIDEO_FORMAT_H264_FRAME_TYPE;
         c.audioProfile = AUDIO_PROFILE_HIGH_QUALITY),
     -2, "ERROR:audioOnly doesn't supported with decodeVideo!!!"},
    {"profile without mix",
     SET(c.audioProfile = AUDIO_PROFILE_HIGH_QUALITY; c.mixedVideoAudio = MIXED_AV_CODEC_V1), -2,
     "ERROR: audio profile can be set only in case isMixingEnables is true!!!"},
    {"resolution without mix", SET(c.mixResolution = text("nonsense")), 0,
     "ERROR:mixResolution only be enabled in video mix mode!!!"},
    {"resolution of audio only",
     SET(c.isMixingEnabled = c.isAudioOnly = true; c.mixResolution = text("")), 0,
     "ERROR:mixResolution only be enabled in video mix mode!!!"},
    {"resolution of three",
     SET(c.isMixingEnabled = c.isVideoOnly = true; c.mixResolution = text("640,360,15");
         c.mixedVideoAudio = MIXED_AV_CODEC_V1),
     -1, "Illegal resolution: 640,360,15"},
    {"resolution of zero", SET(c.isMixingEnabled = true; c.mixResolution = text("640,360,15,0")),
     -1, "Illegal resolution: 640,360,15,0"},
    {"resolution empty", SET(c.isMixingEnabled = true; c.mixResolution = text("")), -1,
     "Illegal resolution: "},
    {"resolution with a tail",
     SET(c.isMixingEnabled = true; c.mixResolution = text(" 640, 360,15,500 and more")), 0, ""},
    {"muxed without mix", SET(c.mixedVideoAudio = MIXED_AV_CODEC_V2; c.idleLimitSec = 0), -1,
     "ERROR:mixedVideoAudio only be enabled in video mix mode!!!"},
    {"muxed video only",
     SET(c.isMixingEnabled = c.isVideoOnly = true; c.mixedVideoAudio = MIXED_AV_CODEC_V2), -1,
     "ERROR:mixedVideoAudio only be enabled in video mix mode!!!"},
    {"muxed audio only",
     SET(c.isMixingEnabled = c.isAudioOnly = true; c.mixedVideoAudio = MIXED_AV_CODEC_V2), -1,
     "ERROR:mixedVideoAudio only be enabled in video mix mode!!!"},
    {"idle of two",
     SET(c.idleLimitSec = 2; c.captureInterval = 0;
         c.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE),
     -2, "Idle limit should be more than 2 seconds"},
    {"idle of three", SET(c.idleLimitSec = 3), 0, ""},
    {"capture without video only", SET(c.decodeVideo = VIDEO_FORMAT_JPG_FILE_TYPE), 0,
     "Video capture mode must be set isVideoOnly = 1"},
    {"capture in a mix",
     SET(c.isMixingEnabled = true; c.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE), 0,
     "Video capture mode must be set isMixingEnabled = 0"},
    {"capture interval",
     SET(c.isVideoOnly = true; c.decodeVideo = VIDEO_FORMAT_JPG_FRAME_TYPE; c.captureInterval = 0;
         c.triggerMode = static_cast<TRIGGER_MODE_TYPE>(2)),
     -2, "Illegal video capture interval."},
    {"trigger of two", SET(c.triggerMode = static_cast<TRIGGER_MODE_TYPE>(2)), -2,
     "triggerMode out of range, it should be 0 or 1"},
    {"trigger by hand", SET(c.triggerMode = MANUALLY_MODE), 0, ""},
    {"trigger negative", SET(c.triggerMode = static_cast<TRIGGER_MODE_TYPE>(-1)), -2,
     "triggerMode out of range, it should be 0 or 1"},
    {"volume interval", SET(c.audioIndicationInterval = -1), -2,
     "audioIndicationInterval out of range, it should be 0 more"},
};

// Whatever else is wrong further down the list, the earlier rule decides.
TEST_F(EngineTest, JoinChecksGiveTheirCodeAndLineAndTheEarlierWins) {
  for (const CheckRow& row : kCheckRows) {
    SCOPED_TRACE(row.name);
    const Lines expected = *row.line != '\0' ? Lines{row.line} : Lines{};
    config = RecordingConfig();
    row.mutate(config);
    for (const bool more_is_wrong : {false, true}) {
      if (more_is_wrong && row.code == 0) continue;
      if (more_is_wrong) config.audioIndicationInterval = -1;
      new_lines();
      EXPECT_EQ(engine->joinChannelValidationCheck("key", "channel", 1, &config), row.code);
      EXPECT_EQ(new_lines(), expected);
    }
  }
  EXPECT_TRUE(handler.calls().empty());
}

TEST_F(EngineTest, JoinChecksTheChannelName) {
  const std::string longest(64, 'c');
  const std::string too_long(65, 'c');
  config.idleLimitSec = 0;
  new_lines();
  for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(engine->joinChannelValidationCheck("", empty, 0, &config), -2);
    EXPECT_EQ(new_lines().back(), "channel id is empty");
  }
  EXPECT_EQ(engine->joinChannelValidationCheck("", too_long.c_str(), 0, &config), -2);
  EXPECT_EQ(new_lines().back(), "The length of channel id should not be more than 64");
  config.idleLimitSec = 3;
  EXPECT_EQ(engine->joinChannelValidationCheck("", longest.c_str(), 0, &config), 0);
}

struct ChunkRow {
  const char* value;
  bool mix;
  CHANNEL_PROFILE_TYPE profile;
  int code;
  int stored;
  const char* line;
};

TEST_F(EngineTest, JoinTakesChunkSpanFromTheFile) {
  const auto live = CHANNEL_PROFILE_LIVE_BROADCASTING;
  const auto talk = CHANNEL_PROFILE_COMMUNICATION;
  const char* const kShort = "chunk time span should be more than 10s";
  const ChunkRow rows[] = {
      {"10", false, live, 0, 10, ""},
      {"9", false, live, -2, 9, kShort},
      {"-5", false, talk, -2, -5, kShort},
      {"60", true, talk, -2, 60, "we can't generate chunk file under mix mode"},
      {"60", false, talk, -2, 60, "we can only generate chunk file under broadcasting mode"},
      {"none", false, talk, 0, 0, ""},
      {"", false, talk, 0, 0, ""},
  };
  for (const ChunkRow& row : rows) {
    settings(std::string(R"({"Chunk_Time_Span":")") + row.value + R"("})");
    config.isMixingEnabled = row.mix;
    config.channelProfile = row.profile;
    new_lines();
    EXPECT_EQ(engine->joinChannelValidationCheck("", "c", 0, &config), row.code) << row.value;
    EXPECT_EQ(engine->config_.chunkTimeSpan, row.stored) << row.value;
    const auto lines = new_lines();
    EXPECT_EQ(lines.empty() ? "" : lines.back(), row.line) << row.value;
  }
}

TEST_F(EngineTest, JoinKeepsAvsyncOfARefusedFile) {
  settings(R"({"Avsync_Type":"1x","Chunk_Time_Span":"5"})");
  config.triggerMode = static_cast<TRIGGER_MODE_TYPE>(7);
  EXPECT_EQ(engine->joinChannelValidationCheck("", "c", 0, &config), -2);
  EXPECT_EQ(engine->avsync_type_, base::AVSYNC_V1);
  EXPECT_EQ(engine->config_.chunkTimeSpan, 0) << "the trigger rule comes first";
}

// ---- The configuration file ----------------------------------------------------------------

TEST_F(EngineTest, LookupsAnswerAndLogByKindOfValue) {
  const char* const kOpen = "ERROR:failed to open config file";
  const char* const kParse = "ERROR:failed to parser config file";
  const char* const kKey = "ERROR:config file does not contain recording";
  const struct {
    const char* name;
    std::string content;
    const char* text;
    uint32_t number;
    const char* line;
  } rows[] = {
      {"string", R"({"k":"v"})", "v", 0, ""},
      {"empty string", R"({"k":""})", "", 0, ""},
      {"number", R"({"k":4294967295})", "", 4294967295U, ""},
      {"too large", R"({"k":4294967296})", "", 0, ""},
      {"negative", R"({"k":-1})", "", 0, ""},
      {"quoted number", R"({"k":"80"})", "80", 0, ""},
      {"object", R"({"k":{}})", "", 0, ""},
      {"null", R"({"k":null})", "", 0, kKey},
      {"absent", R"({"other":1})", "", 0, kKey},
      {"array at the top", R"(["k"])", "", 0, kKey},
      {"text at the top", R"("k")", "", 0, kKey},
      {"truncated", R"({"k":"v)", "", 0, kParse},
      {"empty", "", "", 0, kParse},
      {"comma at the end", R"({"k":"v",})", "", 0, kParse},
      {"comma at an array's end", R"({"k":"v","a":[1,]})", "", 0, kParse},
      {"byte order mark", "\xEF\xBB\xBF{\"k\":\"v\"}", "", 0, kParse},
      {"comment", "// c\n{\"k\":\"v\"}", "v", 0, ""},
      {"more behind it", R"({"k":"v"} x)", "v", 0, ""},
      {"twice", R"({"k":"u","k":"v"})", "v", 0, ""},
      {"too deep", std::string(200000, '['), "", 0, kParse},
  };
  for (const auto& row : rows) {
    const std::string path = dir.file("c.json", row.content);
    new_lines();
    // As a call that was interrupted before leaves it, and no success takes away.
    errno = EINTR;
    EXPECT_EQ(engine->get_val_from_cfg(path.c_str(), "k"), row.text) << row.name;
    const auto lines = new_lines();
    EXPECT_EQ(lines.empty() ? "" : lines[0], row.line) << row.name;
    EXPECT_EQ(engine->get_internal_val_from_cfg(path.c_str(), "k"), row.text) << row.name;
    EXPECT_EQ(engine->get_uint_val_from_cfg(path.c_str(), "k"), row.number) << row.name;
    EXPECT_TRUE(new_lines().empty()) << row.name << ": these two are silent";
  }
  ASSERT_EQ(mkfifo((dir.path() + "fifo").c_str(), 0600), 0);
  const struct {
    std::string path;
    const char* line;
  } paths[] = {{dir.path() + "missing", kOpen},
               {dir.path() + "fifo", kOpen},
               {dir.path(), kParse},
               {"/dev/null", kParse},
               {"/dev/zero", kParse}};
  for (const auto& row : paths) {
    EXPECT_EQ(engine->get_val_from_cfg(row.path.c_str(), "k"), "");
    EXPECT_EQ(new_lines(), Lines{row.line}) << row.path;
  }
}

TEST_F(EngineTest, TestServersComeFromTheFile) {
  std::string vocs = "old";
  std::string vos = "old";
  uint32_t vocs_port = 1;
  uint32_t vos_port = 1;
  EXPECT_EQ(engine->get_internal_test_cfg(nullptr, vocs, vocs_port, vos, vos_port), -1);
  EXPECT_EQ(engine->get_internal_test_cfg(&config, vocs, vocs_port, vos, vos_port), 0);
  EXPECT_EQ(vocs, "old") << "no file, nothing touched";
  settings(R"({"vocs":"h","vocs_port":80,"vos_port":"81"})");
  EXPECT_EQ(engine->get_internal_test_cfg(&config, vocs, vocs_port, vos, vos_port), 0);
  EXPECT_EQ(std::tie(vocs, vocs_port, vos, vos_port), std::make_tuple("h", 80, "", 0));
}

// ---- The folder ----------------------------------------------------------------------------

bool is_folder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// ROOT + YYYYMMDD/ + CHANNEL_HHMMSS_nnnnnnnnn/
bool is_dated(const std::string& path, const std::string& root, const std::string& channel) {
  const std::string::size_type date = root.size();
  return path.rfind(root, 0) == 0 && path[date + 8] == '/' &&
         path.compare(date + 9, channel.size() + 1, channel + "_") == 0 &&
         path.size() == date + 9 + channel.size() + 1 + 17 && path.back() == '/';
}

TEST_F(EngineTest, FolderIsDatedUnderTheRoot) {
  engine->channelId_ = "room";
  std::string without_slash = dir.path();
  without_slash.pop_back();
  std::string first;
  for (const std::string& root : {dir.path(), without_slash}) {
    config.recordFileRootDir = text(root.c_str());
    std::string path = ".";
    EXPECT_EQ(engine->setup_recording_folder(&config, path), 0);
    EXPECT_TRUE(is_dated(path, dir.path(), "room")) << path;
    EXPECT_TRUE(is_folder(path));
    EXPECT_NE(path, first) << "two joins in one second get two folders";
    first = path;
  }
  EXPECT_TRUE(said("ZELTA_FILE_ROOT = " + dir.path()));
  EXPECT_TRUE(said("using recordFileRootDir"));
}

TEST_F(EngineTest, FolderRootComesFromTheEnvironmentOnlyWhenNothingElseIsGiven) {
  std::string channel = "room";
  ASSERT_EQ(setenv("ZELTA_FILE_ROOT", (dir.path() + "env").c_str(), 1), 0);
  std::filesystem::create_directory(dir.path() + "env");
  std::string path;
  engine->set_record_folder(path, channel);
  EXPECT_TRUE(is_dated(path, dir.path() + "env/", "room")) << path;
  path = dir.path();
  engine->set_record_folder(path, channel);
  EXPECT_TRUE(is_dated(path, dir.path(), "room")) << path;
  unsetenv("ZELTA_FILE_ROOT");
  path = dir.path() + "missing";
  engine->set_record_folder(path, channel);
  EXPECT_FALSE(is_folder(path)) << "only the last two parts are made";
}

TEST_F(EngineTest, FolderOfTheFileIsUsedAsItStands) {
  const std::string fixed = dir.path() + "fixed";
  settings(R"({"Recording_Dir":")" + fixed + R"("})");
  for (int join = 0; join < 2; ++join) {
    std::string path = ".";
    EXPECT_EQ(engine->setup_recording_folder(&config, path), 0);
    EXPECT_EQ(path, fixed + "/");
    EXPECT_TRUE(is_folder(path));
  }
  std::filesystem::create_symlink(dir.path() + "nothing", dir.path() + "dangling");
  std::filesystem::create_symlink(dir.path() + "loop", dir.path() + "loop");
  std::string path = "untouched";
  for (const std::string& bad : {std::string("/proc/none/such"), dir.path() + "c.json",
                                 dir.path() + "dangling", dir.path() + "loop"}) {
    settings(R"({"Recording_Dir":")" + bad + R"("})");
    new_lines();
    EXPECT_EQ(engine->setup_recording_folder(&config, path), -1) << bad;
    EXPECT_EQ(path, "untouched");
    EXPECT_EQ(new_lines(), Lines{"Failed to create the recording folder in config file"}) << bad;
  }
  settings(R"({"Recording_Dir":""})");
  EXPECT_EQ(engine->setup_recording_folder(&config, path), 0);
  EXPECT_TRUE(said("recording path is empty in cfg file"));
  EXPECT_EQ(engine->setup_recording_folder(nullptr, path), -1);
}

// ---- The command line ----------------------------------------------------------------------

class CommandLineTest : public EngineTest {
 protected:
  // Without the values that differ from run to run.
  Lines build(const char* key = "key", uid_t uid = 7) {
    std::vector<const char*> args;
    std::string program = "ZeltaCoreService";
    EXPECT_EQ(engine->pushParamsToZRS(key, "room", uid, &config, args, program), 0);
    EXPECT_EQ(args.back(), nullptr);
    Lines line = router.launches.back();
    const auto folder = std::find(line.begin(), line.end(), "--recording_file_dir");
    EXPECT_EQ(*(folder + 1), engine->getProperties()->storageDir);
    EXPECT_EQ(*(folder + 1), router.logdir);
    *(folder + 1) = "FOLDER";
    return line;
  }
  static bool has(const Lines& line, const std::string& name, const std::string& value) {
    const auto found = std::find(line.begin(), line.end(), name);
    return found != line.end() && *(found + 1) == value;
  }
};

TEST_F(CommandLineTest, DefaultsInOrder) {
  EXPECT_EQ(build(),
            words_of("ZeltaCoreService --app_id app --channel_key key --channel_id room "
                     "--uid 7 --mixedVideoAudio 0 --chunk_time_span 0 --idle 300 "
                     "--decode_audio 0 --decode_video 0 --capture_interval 5 "
                     "--audio_indication_interval 0 --syslog_fclt 8 --streamType 0 "
                     "--serviceMode 0 --recording_file_dir FOLDER --lang 0 --audioProfile 0 "
                     "--logLevel 5 --enabledModules -1 --avSyncType 2 (null)"));
  EXPECT_TRUE(engine->isSessionActive_) << "recording starts with the join";
  EXPECT_EQ(engine->channelId_, "room");
}

TEST_F(CommandLineTest, EverythingInOrder) {
  settings(R"({"vocs":"a","vocs_port":4294967295,"vos":"b","vos_port":2,"Log_Module":"4"})");
  config.appliteDir = text("/opt/rec");
  config.isMixingEnabled = config.isVideoOnly = true;
  config.mixedVideoAudio = MIXED_AV_CODEC_V2;
  config.channelProfile = CHANNEL_PROFILE_LIVE_BROADCASTING;
  config.decryptionMode = text("mode");
  config.secret = text("");
  config.mixResolution = text("1,2,3,4");
  config.lowUdpPort = 5;
  config.highUdpPort = 9;
  config.triggerMode = MANUALLY_MODE;
  config.lang = JAVA_LANG;
  config.proxyServer = text("");
  config.audioProfile = AUDIO_PROFILE_HIGH_QUALITY_STEREO;
  config.defaultVideoBg = text("v.png");
  config.defaultUserBg = text("u.png");
  config.streamType = REMOTE_VIDEO_STREAM_LOW;
  config.audioIndicationInterval = 250;
  engine->config_.chunkTimeSpan = 30;
  engine->avsync_type_ = base::AVSYNC_V0;
  base::log_config::disable_all_modules();
  EXPECT_EQ(build(nullptr, 4294967295U),
            words_of("/opt/rec/ZeltaCoreService --app_id app --channel_key app "
                     "--channel_id room --uid 4294967295 --video_only 1 --mix 1 "
                     "--mixedVideoAudio 2 --live 1 --encrypt_mode mode --encrypt_secret '' "
                     "--chunk_time_span 30 --idle 300 --decode_audio 0 --decode_video 0 "
                     "--capture_interval 5 --audio_indication_interval 250 --syslog_fclt 8 "
                     "--streamType 1 --serviceMode 0 --recording_file_dir FOLDER --vocs a "
                     "--vocs_port -1 --vos b --vos_port 2 --mix_resolution 1,2,3,4 "
                     "--min_port 5 --max_port 9 --triggerMode 1 --lang 1 --proxy_server '' "
                     "--audioProfile 2 --defaultVideoBg v.png --defaultUserBg u.png "
                     "--logLevel 5 --enabledModules 4 --avSyncType 0 (null)"));
  EXPECT_FALSE(engine->isSessionActive_) << "waits for the start command";
}

TEST_F(CommandLineTest, PresenceByRule) {
  const struct {
    const char* what;
    Mutate mutate;
    const char* present;  // names and values
    const char* absent;
  } rows[] = {
      {"pictures in place of video",
       SET(c.decodeVideo = VIDEO_FORMAT_JPG_FILE_TYPE; c.isAudioOnly = c.isMixingEnabled = true),
       "--video_only 1 --decode_video 4", "--audio_only --mix"},
      {"pictures beside video",
       SET(c.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE; c.isMixingEnabled = true),
       "--mix 1 --decode_video 5", "--video_only"},
      {"audio only", SET(c.isAudioOnly = c.isMixingEnabled = true; c.mixResolution = text("x")),
       "--audio_only 1", "--video_only --mix_resolution"},
      {"secret alone", SET(c.secret = text("s")), "", "--encrypt_mode --encrypt_secret"},
      {"high port alone", SET(c.highUdpPort = 50000), "--max_port 50000", "--min_port"},
      {"empty backgrounds", SET(c.defaultVideoBg = c.defaultUserBg = text("")), "",
       "--defaultVideoBg --defaultUserBg --proxy_server --triggerMode"},
      {"folder with slash", SET(c.appliteDir = text("/opt/rec/")), "", "//"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    config = RecordingConfig();
    config.recordFileRootDir = text(dir.path().c_str());
    row.mutate(config);
    const Lines line = build("key", 0);
    const Lines present = words_of(row.present);
    for (size_t i = 0; i < present.size(); i += 2) {
      EXPECT_TRUE(has(line, present[i], present[i + 1])) << present[i];
    }
    for (const std::string& name : words_of(std::string("--uid ") + row.absent)) {
      EXPECT_EQ(std::count(line.begin(), line.end(), name), 0) << name;
    }
  }
  EXPECT_EQ(router.launches.back()[0], "/opt/rec/ZeltaCoreService");
}

TEST_F(CommandLineTest, IsLoggedWholeBeforeTheTerminator) {
  config.decryptionMode = text("mode");
  config.secret = text("sesame");
  build();
  const auto lines = new_lines();
  const auto header = std::find(lines.begin(), lines.end(), "=======params ======");
  ASSERT_NE(header, lines.end());
  EXPECT_EQ((header - 1)->rfind("[Wrapper version] ", 0), 0U);
  const Lines dump(header + 1, lines.end());
  ASSERT_EQ(dump.size(), router.launches[0].size() - 1);
  EXPECT_TRUE(std::equal(dump.begin(), dump.end(), router.launches[0].begin()));
  EXPECT_TRUE(said("sesame"));
}

TEST_F(CommandLineTest, ModulesOfAnEmptyPathAreAllModules) {
  base::log_config::set_enabled_modules(2);
  config.cfgFilePath = text("");
  EXPECT_TRUE(has(build(), "--enabledModules", "-1"));
  EXPECT_EQ(logged(dir.path()).back(), "ERROR:failed to open config file");
}

class HookedEngine : public EngineProbe {
 public:
  using EngineProbe::EngineProbe;
  int pushParamsToZRSEx(const RecordingConfig*, std::vector<const char*>& args) override {
    args.insert(args.end(), {"--extra", "1"});
    return result;
  }
  int result = 0;
};

TEST_F(EngineTest, HookAppendsOptionsOrStopsTheJoin) {
  HookedEngine hooked("app", &handler, std::make_unique<FakeRouter>(router).release());
  hooked.result = 5;
  EXPECT_EQ(hooked.joinChannel("k", "room", 0, config), 5);
  EXPECT_TRUE(router.launches.empty());
  EXPECT_TRUE(hooked.args_str_.empty());
  EXPECT_FALSE(hooked.joined_);
  EXPECT_EQ(logged(hooked.logdir_).back(), "joinChannel failed to pushParamsToZRS");
  std::vector<const char*> args;
  std::string program = "p";
  hooked.result = 0;
  EXPECT_EQ(hooked.pushParamsToZRS("k", "room", 0, &config, args, program), 0);
  const auto& line = router.launches.back();
  EXPECT_EQ(line[line.size() - 3], "--extra");
}

// ---- The engine's own copy -----------------------------------------------------------------

template <class... Values>
std::vector<int> ints(Values... values) {
  return {static_cast<int>(values)...};
}

// Each number is another one, so that no two fields can have changed places.
std::vector<int> numbers_of(const RecordingConfigEx& c) {
  return ints(c.channelProfile, c.isAudioOnly, c.isVideoOnly, c.isMixingEnabled, c.mixedVideoAudio,
              c.decodeAudio, c.decodeVideo, c.streamType, c.lowUdpPort, c.highUdpPort,
              c.idleLimitSec, c.captureInterval, c.triggerMode, c.lang, c.audioProfile,
              c.chunkTimeSpan);
}
std::string texts_of(const RecordingConfigEx& c) {
  return c.mixResolution + c.decryptionMode + c.secret + c.appliteDir + c.recordFileRootDir +
         c.cfgFilePath + c.proxyServer + " " + c.channelKey + c.channelId;
}

TEST(RecordingConfigEx, TakesOverAllButWhatJoinsKeepElsewhere) {
  RecordingConfig from;
  from.channelProfile = static_cast<CHANNEL_PROFILE_TYPE>(11);
  from.isAudioOnly = from.isVideoOnly = from.isMixingEnabled = true;
  from.mixedVideoAudio = MIXED_AV_CODEC_V2;
  from.decodeAudio = AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE;
  from.decodeVideo = VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
  from.streamType = static_cast<REMOTE_VIDEO_STREAM_TYPE>(12);
  from.lowUdpPort = 13;
  from.highUdpPort = 14;
  from.idleLimitSec = 15;
  from.captureInterval = 16;
  from.triggerMode = static_cast<TRIGGER_MODE_TYPE>(17);
  from.lang = static_cast<LANGUAGE_TYPE>(18);
  from.audioProfile = AUDIO_PROFILE_HIGH_QUALITY;
  from.mixResolution = text("r");
  from.decryptionMode = text("m");
  from.secret = text("s");
  from.appliteDir = text("a");
  from.recordFileRootDir = text("d");
  from.cfgFilePath = text("c");
  from.proxyServer = text("p");
  RecordingConfigEx to;
  EXPECT_EQ(numbers_of(to), ints(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 300, 5, 0, 0, 0, 0));
  to.chunkTimeSpan = 19;
  to.channelKey = "k";
  to.channelId = "i";
  to = from;
  EXPECT_EQ(numbers_of(to),
            ints(11, 1, 1, 1, 1, AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE,
                 VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE, 12, 13, 14, 15, 16, 17, 18, 0, 19));
  EXPECT_EQ(texts_of(to), "rmsadcp ki");
  to = RecordingConfig();
  EXPECT_EQ(texts_of(to), " ki") << "a null text is an empty one";
}

}  // namespace
}  // namespace zelta::test
