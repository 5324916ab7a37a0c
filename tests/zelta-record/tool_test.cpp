// SPDX-License-Identifier: Apache-2.0
// zelta-record as its users run it: from a terminal, with signals, from scripts.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/folder_watch.h"
#include "support/program.h"
#include "support/recording_test.h"

namespace zelta::test {
namespace {

class Tool : public ::testing::Test {
 protected:
  Tool() {
    unsetenv("ZELTA_CHANNEL_SERVER");
    unsetenv("ZELTA_SERVICE_DIR");
    unsetenv("ZELTA_RECORDER_SETTINGS");
  }
  std::vector<std::string> command(std::vector<std::string> more, bool with_root = true) const {
    std::vector<std::string> all{std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                                 "zelta-record"};
    all.insert(all.end(), more.begin(), more.end());
    if (with_root) all.insert(all.end(), {"--record-file-root-dir", dir.path()});
    return all;
  }
  std::string folder() const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
      if (entry.path().filename() == "recording.json")
        return entry.path().parent_path().string() + "/";
    }
    return "";
  }
  static pid_t recorder_of(pid_t tool) {
    const std::string pid = std::to_string(tool);
    pid_t found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + pid + "/task")) {
      std::ifstream(task.path() / "children") >> found;
      if (found != 0) break;
    }
    return found;
  }

  const TempDir dir;
};

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(Tool, SaysLastWhatWasWrongAndWhatToDo) {
  dir.file("file", "");
  dir.file("server", R"({"Channel_Server": "test:"})");
  const std::string root = dir.path();
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::vector<std::string> says;
  } rows[] = {
      {{"room"}, 2, {"no channel server", "--server dir:PATH"}},
      {{"room", "--server", "test:", "--record-file-root-dir", root + "none"},
       2,
       {root + "none: No such", "folder"}},
      {{"room", "--server", "test:", "--record-file-root-dir", root + "file"},
       2,
       {"file: Not a directory"}},
      {{"room", "--server", "test:", "--frames", root + "file/f", "--decode-audio", "pcm"},
       2,
       {"file/f can't be made: Not a dir"}},
      {{"room", "--server", "test:", "--cfg-file-path", root + "cfg"},
       2,
       {"--cfg-file-path", "cfg can't be read: No such"}},
      {{"room", "--server", "test:", "--cfg-file-path", root + "server"},
       2,
       {"--server and Channel_Server"}},
      {{"room", "--server", "test:", "--cfg-file-path", root + "file"},
       2,
       {"file should hold a JSON object"}},
      {{"room", "--server", "test:", "--applite-dir", root},
       2,
       {"--applite-dir", "ZeltaCoreService"}},
      {{"room", "--server", "fax:1", "--record-file-root-dir", root},
       1,
       {"zelta-record: can't join: unknown", "\"fax:1\"", "dir:PATH"}},
      {{"room", "--server", "dir:" + root + "none", "--record-file-root-dir", root},
       1,
       {"none/room/ can't be used: No such", "make the folder"}},
  };
  for (const auto& row : rows) {
    Program tool(command(row.arguments, false), 500);
    EXPECT_EQ(tool.end(), row.status) << tool.text();
    for (const std::string& part : row.says) {
      EXPECT_TRUE(has(tool.last_line(), part)) << part << " in " << tool.text();
    }
  }
}

// The first signal leaves in order, the second doesn't wait; the mix takes its time to end.
TEST_F(Tool, LeavesAtASignalAndAtTheSecondWithoutItsFiles) {
  const struct {
    const char* name;
    std::function<void(Program&)> first;
    bool again;
    int status;
  } rows[] = {
      {"Ctrl-C", [](Program& tool) { tool.type("\x03"); }, false, 0},
      {"SIGTERM", [](Program& tool) { kill(tool.pid(), SIGTERM); }, false, 0},
      {"SIGHUP", [](Program& tool) { kill(tool.pid(), SIGHUP); }, false, 0},
      {"Ctrl-C twice", [](Program& tool) { tool.type("\x03"); }, true, 130},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Program tool(command({"room", "--server", "test:users=1", "--is-mixing-enabled"}), 46);
    ASSERT_TRUE(tool.wait_for("recorded", 2)) << tool.text();
    const pid_t recorder = recorder_of(tool.pid());
    std::string blocked = read_file("/proc/" + std::to_string(recorder) + "/status");
    blocked = blocked.substr(blocked.find("SigBlk"), 24);
    EXPECT_EQ((blocked.back() - '0') & 1, 0) << "SIGHUP is for the recorder too: " << blocked;
    row.first(tool);
    ASSERT_TRUE(tool.wait_for("leaving")) << tool.text();
    if (row.again) row.first(tool);
    EXPECT_EQ(tool.end(), row.status) << tool.text();
    EXPECT_EQ(has(tool.text(), "name mix_"), !row.again) << tool.text();
    const std::string progress = tool.text().substr(tool.text().find("\r\033[K") + 4, 200);
    EXPECT_LT(progress.find_first_of("\r\n"), 46U) << "fits the terminal: " << progress;
    EXPECT_TRUE(has(progress, "1 user  ")) << progress;
  }
}

TEST_F(Tool, KeepsFramesThatCanBeOpenedHoweverItDies) {
  const std::string frames = dir.path() + "frames";
  for (const auto& [video, audio] : {std::pair{"yuv", "pcm"}, std::pair{"h264", "aac"}}) {
    Program tool(command({"room", "--server", "test:users=1", "--frames", frames, "--decode-video",
                          video, "--decode-audio", audio}));
    ASSERT_TRUE(tool.wait_for("frames/s")) << tool.text();
    // A second and a half of each, however long a slow machine takes for it.
    const bool raw = video == std::string("yuv");
    const std::pair<const char*, size_t> files[] = {
        {raw ? "/1_1.y4m" : "/1.h264", raw ? 38 * 640 * 360 * 3 / 2 : 1},
        {raw ? "/1.wav" : "/1.aac", raw ? 144'000 : 12'000}};
    for (const auto& [name, bytes] : files) {
      const std::string path = frames + name;
      EXPECT_TRUE(wait_in_folder(frames, std::chrono::seconds(20), [&path, least = bytes] {
        std::error_code missing;
        const auto size = std::filesystem::file_size(path, missing);
        return !missing && size > least;
      })) << name;
    }
    kill(tool.pid(), SIGKILL);
    EXPECT_EQ(tool.end(), 1000 + SIGKILL);
  }
  for (const char* name : {"/1.wav", "/1_1.y4m", "/1.h264", "/1.aac"}) {
    EXPECT_EQ(decode_errors_of(frames + name), "") << name;
    EXPECT_TRUE(has(name, "h264") || seconds_of(frames + name) > 1) << name;
  }
  const std::string wav = read_file(frames + "/1.wav");
  uint32_t told = 0;
  ASSERT_GT(wav.size(), 44U);
  std::memcpy(&told, wav.data() + 40, sizeof told);
  EXPECT_GT(told, 96000U) << "a second of what its header says is there";
  EXPECT_LE(told, wav.size() - 44);
}

TEST_F(Tool, EndsWithAStatusOfItsOwnWhenSomethingIsMissing) {
  Program tool(command({"room", "--server", "test:users=1", "--json"}));
  ASSERT_TRUE(tool.wait_for("first video")) << tool.text();
  kill(recorder_of(tool.pid()), SIGKILL);
  ASSERT_TRUE(tool.wait_for("first video", 2)) << tool.text();
  kill(tool.pid(), SIGTERM);
  EXPECT_EQ(tool.end(), 5) << tool.text();
  EXPECT_TRUE(has(tool.last_line(), "recorded, but not all")) << tool.text();
  EXPECT_TRUE(has(tool.text(), "\"event\":\"missing\"")) << tool.text();
  EXPECT_TRUE(has(tool.text(), "the recorder died and was started again, 1 time")) << tool.text();
}

TEST_F(Tool, SaysWhenNothingWasRecorded) {
  const struct {
    std::vector<std::string> arguments;
    const char* says;
  } rows[] = {
      {{"room", "--server", "test:users=0", "--duration", "0.2"}, "nobody came"},
      {{"room", "--server", "test:", "--duration", "1", "--commands", "--trigger-mode", "manual"},
       "never started"}};
  for (const auto& row : rows) {
    const std::string no_input;
    Program tool(command(row.arguments), 100, &no_input);
    EXPECT_EQ(tool.end(), 0) << tool.text();
    EXPECT_TRUE(has(tool.last_line(), row.says)) << tool.text();
  }
}

TEST_F(Tool, TakesCommandsAndOutlivesTheirEnd) {
  const std::string layout = dir.file("l.json", R"({"regions": [{"uid": 1, "x": 0, "y": 0,
      "width": 1, "height": 1, "renderMode": "fit"}]})");
  const std::string bad = dir.file("bad.json", R"({"regions": [{"uid": 1, "x": 2, "y": 0}]})");
  const std::string input =
      "layout " + layout + "\nlayout " + bad + "\nstart\nbackground x\nlog-level info\nsing";
  Program tool(command({"room", "--server", "test:users=1", "--is-mixing-enabled", "--layout",
                        layout, "--commands", "--duration", "1.5"}),
               500, &input);
  EXPECT_EQ(tool.end(), 0) << tool.text();
  for (const char* part : {"l.json  result done", "\"x\" should be a number from 0 to 1, not 2",
                           "it takes --trigger-mode manual", "\"x\" should be a user id",
                           "info  result done", "\"sing\" isn't known; there are start, stop"}) {
    EXPECT_TRUE(has(tool.text(), part)) << part << " in " << tool.text();
  }
  EXPECT_TRUE(has(read_file(folder() + "recording_engine.log"), "set log level to : 5"));
  const std::string leave = "leave\n";
  Program left(command({"room", "--server", "test:users=1", "--commands"}), 100, &leave);
  EXPECT_EQ(left.end(), 0) << left.text();
}

TEST_F(Tool, ShowsNoSecretToAnybody) {
  const std::string secret = "c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0";
  const std::string key_file = dir.file("key", "k3y\n");
  setenv("ZELTA_SECRET", secret.c_str(), 1);
  Program tool(command({"room", "--server", "test:users=1", "--decryption-mode",
                        "aes-128-cm-sha1-80", "--channel-key-file", key_file}));
  Program second(command({"hall", "--server", "test:users=1", "--decryption-mode",
                          "aes-128-cm-sha1-80", "--secret=" + secret}));
  unsetenv("ZELTA_SECRET");
  for (Program* const one : {&tool, &second}) {
    ASSERT_TRUE(one->wait_for("first video")) << one->text();
    for (const pid_t pid : {one->pid(), recorder_of(one->pid())}) {
      const std::string proc = "/proc/" + std::to_string(pid);
      EXPECT_FALSE(has(read_file(proc + "/cmdline") + read_file(proc + "/environ"), secret)) << pid;
    }
    kill(one->pid(), SIGTERM);
    EXPECT_EQ(one->end(), 0) << one->text();
  }
  int logs = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    if (entry.path().filename() != "recording_engine.log") continue;
    const std::string log = read_file(entry.path());
    EXPECT_TRUE(has(log, "user 1 joined"));
    EXPECT_FALSE(has(log, secret) || has(log, "k3y")) << log;
    EXPECT_EQ(entry.status().permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    ++logs;
  }
  EXPECT_EQ(logs, 2);
}

// What earlier sessions left in a shared folder is none of this one's.
TEST_F(Tool, CutsChunksBesideTheUsersConfigurationAndListsItsOwnFiles) {
  const std::string shared = dir.path() + "shared/";
  std::filesystem::create_directory(shared);
  std::ofstream(shared + "recording.json") << R"({"channel_id": "room", "files": [
      {"name": "9_old.mp4", "channel_id": "room", "uid": 9, "closed": "recorder died"}],
      "dropped_frames": {"coded": 3, "pictures": 0, "sound": 0}})";
  const std::string cfg = dir.file("cfg", R"({"Recording_Dir": ")" + shared + R"("})");
  Program tool(command({"room", "--server", "test:users=1", "--chunk", "12", "--channel-profile",
                        "live", "--cfg-file-path", cfg, "--duration", "1"},
                       false));
  EXPECT_EQ(tool.end(), 0) << tool.text();
  EXPECT_TRUE(has(tool.text(), "uid 1")) << tool.text();
  EXPECT_FALSE(has(tool.text(), "9_old")) << tool.text();
  const auto lines = logged(shared);
  const auto chunk = std::find(lines.begin(), lines.end(), "--chunk_time_span");
  ASSERT_NE(chunk, lines.end());
  EXPECT_EQ(*(chunk + 1), "12");
}

TEST_F(Tool, ChecksSettingsBeforeAnythingStarts) {
  const std::string bad = dir.file("bad.json", R"({"ports": {"from": 80}, "soud": 1})");
  const std::string port = bad + ": ports.from: 80 should be a whole number of 1024 to 65534";
  const std::string unknown = bad + ": soud: no such setting; most_users, ports, sound are";
  Program refused(command({"room", "--server", "test:", "--settings", bad}), 500);
  EXPECT_EQ(refused.end(), 2) << refused.text();
  EXPECT_EQ(refused.text(), "zelta-record: --settings " + port + "\r\nzelta-record: --settings " +
                                unknown + "\r\n");
  // The recorder looks for itself.
  setenv("ZELTA_RECORDER_SETTINGS", bad.c_str(), 1);
  Program told(command({"room", "--server", "test:"}), 500);
  unsetenv("ZELTA_RECORDER_SETTINGS");
  EXPECT_EQ(told.end(), 1) << told.text();
  EXPECT_TRUE(has(told.text(), "ZeltaCoreService: " + unknown)) << told.text();
  EXPECT_EQ(told.last_line(), "zelta-record: can't join: " + port);
  EXPECT_EQ(folder(), "") << "nothing was started";
}

// No engine hangs up on it.
TEST_F(Tool, IsNotNeededForARecorderToEndWhenItCannotJoin) {
  const std::string empty = dir.file("empty.json", "");
  const struct {
    const char* server;
    std::string settings;
    int status;
    const char* logged;
  } rows[] = {{"fax:1", "", 3, "can't join: unknown channel server"},
              {"test:", empty, 2, "can't join: "}};
  for (const auto& row : rows) {
    setenv("ZELTA_CHANNEL_SERVER", row.server, 1);
    setenv("ZELTA_RECORDER_SETTINGS", row.settings.c_str(), 1);
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "ZeltaCoreService";
    Program recorder({program, "--channel_id", "room", "--recording_file_dir", dir.path()}, 500);
    EXPECT_EQ(recorder.end(), row.status) << recorder.text();
    EXPECT_EQ(has(recorder.text(), row.settings + ": Line 1, Column 1"), row.status == 2);
    EXPECT_TRUE(has(read_file(dir.path() + "recording_engine.log"), row.logged + row.settings));
  }
  unsetenv("ZELTA_CHANNEL_SERVER");
  unsetenv("ZELTA_RECORDER_SETTINGS");
}

TEST_F(Tool, HandsSettingsToItsRecorder) {
  const std::string settings =
      dir.file("s.json", R"({"most_users": 2, "ports": {"from": 40000, "to": 40999}})");
  // What it replaces has no effect.
  setenv("ZELTA_RECORDER_SETTINGS", "/nonexistent", 1);
  Program tool(
      command({"room", "--server", "test:users=3", "--settings", settings, "--duration", "1"}),
      500);
  EXPECT_EQ(tool.end(), 5) << tool.text();
  EXPECT_TRUE(has(tool.last_line(), "user 3, all: 2 users at a time is the most")) << tool.text();
  EXPECT_TRUE(has(tool.text(), "uid 2") && !has(tool.text(), "uid 3")) << tool.text();

  const std::string room = dir.path() + "channels/room/";
  std::filesystem::create_directories(room);
  std::ofstream(room + "1.sdp") << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\n"
                                   "t=0 0\nm=audio 9 RTP/AVP 0\n";
  const std::pair<std::vector<std::string>, int> rows[] = {
      {{}, 40}, {{"--low-udp-port", "42000"}, 42}, {{"--high-udp-port", "39999"}, 1}};
  for (const auto& [ports, thousand] : rows) {
    std::vector<std::string> arguments{"room", "--server", "dir:" + dir.path() + "channels",
                                       "--settings", settings};
    arguments.insert(arguments.end(), ports.begin(), ports.end());
    Program receiver(command(arguments), 500);
    const std::string answer = room + "1.sdp.answer";
    EXPECT_TRUE(wait_in_folder(room, std::chrono::seconds(20), [&answer] {
      return has(read_file(answer), "m=audio ");
    })) << receiver.text();
    const std::string text = read_file(answer);
    EXPECT_EQ(std::atoi(text.substr(text.find("m=audio ") + 8).c_str()) / 1000, thousand) << text;
    kill(receiver.pid(), SIGTERM);
    receiver.end();
    std::filesystem::remove(answer);
  }
  unsetenv("ZELTA_RECORDER_SETTINGS");
}

}  // namespace
}  // namespace zelta::test
