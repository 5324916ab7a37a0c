// SPDX-License-Identifier: Apache-2.0
// zelta-record as its users run it: from a terminal, with signals, from scripts.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
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
  // zelta-record with these words, of which "ROOT/" is the test's folder, and a folder to record
  // into.
  std::vector<std::string> command(const std::string& words, bool with_root = true) const {
    std::vector<std::string> all{program("zelta-record")};
    const std::string root = with_root ? " --record-file-root-dir ROOT/" : "";
    for (const std::string& word : words_of(words + root)) all.push_back(in_root(word));
    return all;
  }
  std::string in_root(std::string text) const {
    const size_t at = text.find("ROOT/");
    return at == std::string::npos ? text : text.replace(at, 5, dir.path());
  }
  static std::string program(const char* name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
  }
  // Where something was recorded; empty: nowhere.
  std::string folder() const {
    return output_of("find " + dir.path() + " -name recording.json -printf %h/");
  }
  static pid_t recorder_of(pid_t tool) {
    return std::atoi(output_of("pgrep -P " + std::to_string(tool)).c_str());
  }

  const TempDir dir;
};

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(Tool, SaysLastWhatWasWrongOrThatThereWasNothing) {
  dir.file("file", "");
  dir.file("server", R"({"Channel_Server": "test:"})");
  // Its status, its words, and parts of what it says last, with "|" between.
  const std::tuple<int, const char*, const char*> rows[] = {
      {2, "room", "no channel server|--server dir:PATH"},
      {2, "room --server test: --record-file-root-dir ROOT/none", "ROOT/none: No such|folder"},
      {2, "room --server test: --record-file-root-dir ROOT/file", "file: Not a directory"},
      {2, "room --server test: --frames ROOT/file/f --decode-audio pcm",
       "file/f can't be made: Not a dir"},
      {2, "room --server test: --cfg-file-path ROOT/cfg",
       "--cfg-file-path|cfg can't be read: No such"},
      {2, "room --server test: --cfg-file-path ROOT/server", "--server and Channel_Server"},
      {2, "room --server test: --cfg-file-path ROOT/file", "file should hold a JSON object"},
      {2, "room --server test: --applite-dir ROOT/", "--applite-dir|ZeltaCoreService"},
      {1, "room --server fax:1 --record-file-root-dir ROOT/",
       "zelta-record: can't join: unknown|\"fax:1\"|dir:PATH"},
      {1, "room --server dir:ROOT/none --record-file-root-dir ROOT/",
       "none/room/ can't be used: No such|make the folder"},
      {0, "room --server test:users=0 --duration 0.2 --record-file-root-dir ROOT/", "nobody came"},
      {0,
       "room --server test: --duration 1 --commands --trigger-mode manual "
       "--record-file-root-dir ROOT/",
       "never started"},
  };
  const std::string no_input;
  for (const auto& [status, words, says] : rows) {
    Program tool(command(words, false), 500, &no_input);
    EXPECT_EQ(tool.end(), status) << tool.text();
    std::istringstream parts(in_root(says));
    for (std::string part; std::getline(parts, part, '|');) {
      EXPECT_TRUE(has(tool.last_line(), part)) << part << " in " << tool.text();
    }
  }
}

// The first signal leaves in order, the second doesn't wait; the mix takes its time to end.
TEST_F(Tool, LeavesAtASignalAndAtTheSecondWithoutItsFiles) {
  // A signal, 0 for Ctrl-C, whether it comes twice, and the status then.
  for (const auto& [number, again, status] :
       {std::tuple(0, false, 0), {SIGTERM, false, 0}, {SIGHUP, false, 0}, {0, true, 130}}) {
    SCOPED_TRACE(std::to_string(number) + (again ? " twice" : ""));
    Program tool(command("room --server test:users=1 --is-mixing-enabled"), 46);
    const auto send = [&tool, signal = number] {
      signal == 0 ? tool.type("\x03") : static_cast<void>(kill(tool.pid(), signal));
    };
    ASSERT_TRUE(tool.wait_for("recorded", 2)) << tool.text();
    const pid_t recorder = recorder_of(tool.pid());
    std::string blocked = read_file("/proc/" + std::to_string(recorder) + "/status");
    blocked = blocked.substr(blocked.find("SigBlk"), 24);
    EXPECT_EQ((blocked.back() - '0') & 1, 0) << "SIGHUP is for the recorder too: " << blocked;
    send();
    ASSERT_TRUE(tool.wait_for("leaving")) << tool.text();
    if (again) send();
    EXPECT_EQ(tool.end(), status) << tool.text();
    EXPECT_EQ(has(tool.text(), "name mix_"), !again) << tool.text();
    const std::string progress = tool.text().substr(tool.text().find("\r\033[K") + 4, 200);
    EXPECT_LT(progress.find_first_of("\r\n"), 46U) << "fits the terminal: " << progress;
    EXPECT_TRUE(has(progress, "1 user  ")) << progress;
  }
}

TEST_F(Tool, KeepsFramesThatCanBeOpenedHoweverItDies) {
  const std::string frames = dir.path() + "frames";
  for (const auto& [video, audio] : {std::pair{"yuv", "pcm"}, std::pair{"h264", "aac"}}) {
    Program tool(command(std::string("room --server test:users=1 --frames ROOT/frames") +
                         " --decode-video " + video + " --decode-audio " + audio));
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
  // Of the file's bytes behind its header, those that the header tells of.
  const auto told_of = [&frames](const char* name) {
    const std::string wav = read_file(frames + name);
    uint32_t told = 0;
    if (wav.size() > 44) std::memcpy(&told, wav.data() + 40, sizeof told);
    return std::pair(size_t{told}, wav.size() - 44);
  };
  const auto [told, there] = told_of("/1.wav");
  EXPECT_GT(told, 96000U) << "a second of what its header says is there";
  EXPECT_LE(told, there);
  Program ends(command(
      "room --server test:users=2 --frames ROOT/frames --decode-audio mixed-pcm --duration 2"));
  EXPECT_EQ(ends.end(), 0) << ends.text();
  EXPECT_EQ(decode_errors_of(frames + "/0.wav"), "");
  const auto [told_in_order, there_in_order] = told_of("/0.wav");
  EXPECT_GT(told_in_order, 1000U);
  EXPECT_EQ(told_in_order, there_in_order);
}

TEST_F(Tool, SaysWhichPageToOpen) {
  // Taken by nobody else while it isn't listened at.
  const base::unique_fd held(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int reuse = 1;
  sockaddr_in place{};
  socklen_t size = sizeof place;
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  setsockopt(held.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  ASSERT_EQ(bind(held.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
  getsockname(held.get(), reinterpret_cast<sockaddr*>(&place), &size);
  const std::string at = "127.0.0.1:" + std::to_string(ntohs(place.sin_port));
  dir.file("whip", R"({"Channel_Server": "whip:)" + at + R"("})");
  for (const char* const named : {"--cfg-file-path ROOT/whip", "--server whip:"}) {
    const std::string server = std::string(named) + (has(named, "whip:") ? at : "");
    Program tool(command("a&b --json --duration 0.2 " + server));
    EXPECT_EQ(tool.end(), 0) << tool.text();
    EXPECT_TRUE(has(tool.text(), "\"url\":\"http://" + at + "/a%26b\"")) << tool.text();
  }
  Program other(command("room --json --duration 0.2 --server test:users=0"));
  EXPECT_EQ(other.end(), 0) << other.text();
  EXPECT_FALSE(has(other.text(), "\"page\"")) << other.text();
}

TEST_F(Tool, EndsWithAStatusOfItsOwnWhenSomethingIsMissing) {
  Program tool(command("room --server test:users=1 --json"));
  ASSERT_TRUE(tool.wait_for("first video")) << tool.text();
  kill(recorder_of(tool.pid()), SIGKILL);
  ASSERT_TRUE(tool.wait_for("first video", 2)) << tool.text();
  kill(tool.pid(), SIGTERM);
  EXPECT_EQ(tool.end(), 5) << tool.text();
  EXPECT_TRUE(has(tool.last_line(), "recorded, but not all")) << tool.text();
  EXPECT_TRUE(has(tool.text(), "\"event\":\"missing\"")) << tool.text();
  EXPECT_TRUE(has(tool.text(), "the recorder died and was started again, 1 time")) << tool.text();
}

TEST_F(Tool, TakesCommandsAndOutlivesTheirEnd) {
  const std::string layout = dir.file("l.json", R"({"regions": [{"uid": 1, "x": 0, "y": 0,
      "width": 1, "height": 1, "renderMode": "fit"}]})");
  const std::string bad = dir.file("bad.json", R"({"regions": [{"uid": 1, "x": 2, "y": 0}]})");
  const std::string input =
      "layout " + layout + "\nlayout " + bad + "\nstart\nbackground x\nlog-level info\nsing";
  Program tool(command("room --server test:users=1 --is-mixing-enabled --layout ROOT/l.json "
                       "--commands --duration 1.5"),
               500, &input);
  EXPECT_EQ(tool.end(), 0) << tool.text();
  for (const char* part : {"l.json  result done", "\"x\" should be a number from 0 to 1, not 2",
                           "it takes --trigger-mode manual", "\"x\" should be a user id",
                           "info  result done", "\"sing\" isn't known; there are start, stop"}) {
    EXPECT_TRUE(has(tool.text(), part)) << part << " in " << tool.text();
  }
  EXPECT_TRUE(has(read_file(folder() + "recording_engine.log"), "set log level to : 5"));
  const std::string leave = "renew 5\nleave\n";
  Program left(command("room --server test:users=1 --commands"), 100, &leave);
  EXPECT_EQ(left.end(), 0) << left.text();
  EXPECT_TRUE(has(left.text(), "renew 5  result it takes --lease")) << left.text();
}

TEST_F(Tool, LeavesWhenItsLeaseIsOver) {
  const std::string input = "renew\nrenew soon\nrenew 86401\nrenew -1\nrenew 1.2\n";
  const auto began = std::chrono::steady_clock::now();
  Program tool(command("room --server test:users=1 --lease 60"), 100, &input);
  EXPECT_EQ(tool.end(), 0) << tool.text();
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(30));
  for (const char* part :
       {"it should be: renew SECONDS", "\"soon\" should be seconds, 0 to 86400",
        "\"86401\" should be seconds", "\"-1\" should be seconds", "lease over"}) {
    EXPECT_TRUE(has(tool.text(), part)) << part << " in " << tool.text();
  }
  EXPECT_FALSE(has(tool.text(), "renew 1.2")) << tool.text();
}

TEST_F(Tool, ShowsNoSecretToAnybody) {
  const std::string secret = "c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0";
  dir.file("key", "k3y\n");
  const std::string words = " --server test:users=1 --decryption-mode aes-128-cm-sha1-80 ";
  setenv("ZELTA_SECRET", secret.c_str(), 1);
  Program tool(command("room" + words + "--channel-key-file ROOT/key"));
  Program second(command("hall" + words + "--secret=" + secret));
  unsetenv("ZELTA_SECRET");
  for (Program* const one : {&tool, &second}) {
    ASSERT_TRUE(one->wait_for("first video")) << one->text();
    for (const pid_t pid : {one->pid(), recorder_of(one->pid())}) {
      const std::string proc = "/proc/" + std::to_string(pid);
      EXPECT_FALSE(has(read_file(proc + "/cmdline") + read_file(proc + "/environ"), secret)) << pid;
    }
    const std::string recorder = "/proc/" + std::to_string(recorder_of(one->pid()));
    EXPECT_TRUE(has(read_file(recorder + "/cmdline"), "--encrypt_secret"));
    EXPECT_TRUE(has(read_file(recorder + "/status"), "NoNewPrivs:\t1"));
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
  dir.file("cfg", R"({"Recording_Dir": ")" + shared + R"("})");
  Program tool(
      command("room --server test:users=1 --chunk 12 --channel-profile live "
              "--cfg-file-path ROOT/cfg --duration 1",
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
  const std::string unknown =
      bad + ": soud: no such setting; most_users, ports, sound, volumes, whip, janus are";
  Program refused(command("room --server test: --settings " + bad), 500);
  EXPECT_EQ(refused.end(), 2) << refused.text();
  EXPECT_EQ(refused.text(), "zelta-record: --settings " + port + "\r\nzelta-record: --settings " +
                                unknown + "\r\n");
  // The recorder looks for itself.
  setenv("ZELTA_RECORDER_SETTINGS", bad.c_str(), 1);
  Program told(command("room --server test:"), 500);
  unsetenv("ZELTA_RECORDER_SETTINGS");
  EXPECT_EQ(told.end(), 1) << told.text();
  EXPECT_TRUE(has(told.text(), "ZeltaCoreService: " + unknown)) << told.text();
  EXPECT_EQ(told.last_line(), "zelta-record: can't join: " + port);
  EXPECT_EQ(folder(), "") << "nothing was started";
}

// No engine hangs up on it.
TEST_F(Tool, IsNotNeededForARecorderToEndWhenItCannotJoin) {
  const std::string empty = dir.file("empty.json", "");
  const std::tuple<const char*, std::string, int, const char*> rows[] = {
      {"fax:1", "", 3, "can't join: unknown channel server"}, {"test:", empty, 2, "can't join: "}};
  for (const auto& [server, settings, status, says] : rows) {
    setenv("ZELTA_CHANNEL_SERVER", server, 1);
    setenv("ZELTA_RECORDER_SETTINGS", settings.c_str(), 1);
    Program recorder(
        {program("ZeltaCoreService"), "--channel_id", "room", "--recording_file_dir", dir.path()},
        500);
    EXPECT_EQ(recorder.end(), status) << recorder.text();
    EXPECT_EQ(has(recorder.text(), settings + ": Line 1, Column 1"), status == 2);
    EXPECT_TRUE(has(read_file(dir.path() + "recording_engine.log"), says + settings));
  }
  unsetenv("ZELTA_CHANNEL_SERVER");
  unsetenv("ZELTA_RECORDER_SETTINGS");
}

TEST_F(Tool, HandsSettingsToItsRecorder) {
  dir.file("s.json", R"({"most_users": 2, "ports": {"from": 40000, "to": 40999}})");
  // What it replaces has no effect.
  setenv("ZELTA_RECORDER_SETTINGS", "/nonexistent", 1);
  Program tool(command("room --uid 9 --server test:users=3 --settings ROOT/s.json --duration 1"),
               500);
  EXPECT_EQ(tool.end(), 5) << tool.text();
  EXPECT_TRUE(has(tool.last_line(), "user 3, all: 2 users at a time is the most")) << tool.text();
  EXPECT_TRUE(has(tool.text(), "uid 2") && !has(tool.text(), "uid 3")) << tool.text();

  const std::string room = dir.path() + "channels/room/";
  std::filesystem::create_directories(room);
  std::ofstream(room + "1.sdp") << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\n"
                                   "t=0 0\nm=audio 9 RTP/AVP 0\n";
  for (const auto& [ports, thousand] :
       {std::pair("", 40), {"--low-udp-port 42000", 42}, {"--high-udp-port 39999", 1}}) {
    Program receiver(
        command(std::string("room --server dir:ROOT/channels --settings ROOT/s.json ") + ports),
        500);
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
