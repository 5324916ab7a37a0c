// SPDX-License-Identifier: Apache-2.0
// Recordings of the real recorder through the engine, and what ffprobe and ffmpeg say of the files.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include "support/folder_watch.h"
#include "support/read_json.h"
#include "support/recording_handler.h"
#include "support/temp_dir.h"

namespace zelta::test {

inline std::string output_of(const std::string& command) {
  std::string text;
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
  std::array<char, 4096> part{};
  while (const size_t got = fread(part.data(), 1, part.size(), pipe.get())) {
    text.append(part.data(), got);
  }
  return text;
}

// What ffprobe says with these options: a line a stream, frame or packet, each with its values.
inline std::string probed(const std::string& file, const std::string& options) {
  return output_of("ffprobe -v error -of csv=p=0 " + options + " " + file);
}

// These values of the first stream of a kind, "v" or "a".
inline std::string stream_of(const std::string& file, const std::string& kind,
                             const std::string& names) {
  const std::string text =
      probed(file, "-select_streams " + kind + " -show_entries stream=" + names);
  return text.substr(0, text.find_last_not_of('\n') + 1);
}

// "h264 aac" and so on, in the order of the streams.
inline std::string codecs_of(const std::string& file) {
  std::string all;
  for (const std::string& line : lines_of(probed(file, "-show_entries stream=codec_name"))) {
    all += (all.empty() ? "" : " ") + line;
  }
  return all;
}

inline double seconds_of(const std::string& file) {
  return std::atof(probed(file, "-show_entries format=duration").c_str());
}

// With ffmpeg, from its generators: "testsrc=duration=2 -c:v libx264" and more inputs between.
inline void make_media(const std::string& how, const std::string& file) {
  ASSERT_EQ(output_of("ffmpeg -v error -y -f lavfi -i " + how + " " + file), "") << file;
}

inline std::string decode_errors_of(const std::string& file) {
  // In the file's own time base: rounded to a frame rate, two times may be one.
  return output_of("ffmpeg -v error -i " + file +
                   " -fps_mode passthrough -enc_time_base:v -1 -f null -");
}

class RecordingTest : public ::testing::Test {
 protected:
  RecordingTest() {
    unsetenv("ZELTA_SERVICE_DIR");
    config.recordFileRootDir = const_cast<char*>(dir.path().c_str());
  }

  // A call of the handler's that is waited for, or so many.
  struct awaited {
    const char* start;
    int count = 1;
  };
  void join(const std::string& server, std::initializer_list<awaited> calls = {}) {
    handler.clear();
    setenv("ZELTA_CHANNEL_SERVER", server.c_str(), 1);
    engine.reset(IRecordingEngine::createZeltaRecordingEngine("app", &handler));
    ASSERT_EQ(engine->joinChannel("", "room", 77, config), 0);
    folder = engine->getProperties()->storageDir;
    for (const awaited& call : calls) {
      ASSERT_TRUE(handler.wait_for(call.start, call.count)) << call.start;
    }
  }
  // A folder of users, which join_folder() joins.
  std::string room() const {
    std::string path = dir.path() + "channels/room/";
    std::filesystem::create_directories(path);
    return path;
  }
  void join_folder(std::initializer_list<awaited> calls) { join("dir:" + room() + "..", calls); }
  // In every call that begins so.
  void expect_said(const std::string& start, const std::string& part) const {
    for (const std::string& call : handler.calls()) {
      if (call.rfind(start, 0) == 0) {
        EXPECT_NE(call.find(part), std::string::npos) << call;
      }
    }
  }
  // Makes the settings fix the recording folder, which is returned.
  std::string fix_folder() {
    std::string recordings = dir.path() + "recordings/";
    std::filesystem::create_directories(recordings);
    settings = dir.file("settings.json", "{\"Recording_Dir\": \"" + recordings + "\"}");
    config.cfgFilePath = settings.data();
    return recordings;
  }
  // Recorders that ended by themselves must have ended well; a sanitizer's find is a status too.
  void release() {
    engine.reset();
    for (const std::string& line : lines_of(log())) {
      const size_t at = line.find("ended: exit status ");
      if (at == std::string::npos) continue;
      const char status = line[at + 19];
      EXPECT_TRUE(status == '0' || status == '3' || status == '4') << line;
    }
  }
  // Waits, 20 s at most, until `ready` holds, which is looked at whenever the recording folder
  // changes.
  template <class Ready>
  bool wait_until(Ready ready) const {
    return wait_in_folder(folder, std::chrono::seconds(20), ready);
  }
  // Until the last file, and `count` of them, has so much in it.
  bool wait_recorded(int ms, unsigned count = 1) const {
    return wait_until([this, ms, count] {
      const Json::Value all = files();
      return all.size() >= count && all[all.size() - 1]["duration_ms"].asInt() >= ms;
    });
  }
  static std::string recorder_pid() {
    return output_of("pgrep -P " + std::to_string(getpid()) + " ZeltaCoreServic");
  }
  static void signal_recorder(const std::string& name) {
    output_of("pkill -" + name + " -P " + std::to_string(getpid()) + " ZeltaCoreServic");
  }
  Json::Value manifest() const { return read_json(folder + "recording.json"); }
  Json::Value files() const { return manifest()["files"]; }
  std::string path_of(const Json::Value& file) const { return folder + file["name"].asString(); }
  std::string path_of(Json::ArrayIndex number) const { return path_of(files()[number]); }
  // There are so many, and all can be played.
  void expect_whole_files(unsigned count) const {
    const Json::Value all = files();
    EXPECT_EQ(all.size(), count);
    for (const Json::Value& file : all) EXPECT_EQ(decode_errors_of(path_of(file)), "") << file;
  }
  // One of them holds as much as the manifest says.
  void expect_told_duration(const Json::Value& file) const {
    EXPECT_NEAR(seconds_of(path_of(file)) * 1000, file["duration_ms"].asDouble(), 100) << file;
  }
  // Each begins where the one before ends, but for so many milliseconds.
  void expect_no_gaps(int ms) const {
    const Json::Value all = files();
    for (Json::ArrayIndex i = 1; i < all.size(); ++i) {
      const auto gap = all[i]["first_utc_ms"].asInt64() - all[i - 1]["last_utc_ms"].asInt64();
      EXPECT_LE(std::abs(gap), ms) << "before file " << i;
    }
  }
  std::string log() const { return read_file(folder + "recording_engine.log"); }

  TempDir dir;
  RecordingHandler handler;
  RecordingConfig config;
  std::unique_ptr<IRecordingEngine, Releaser> engine;
  std::string folder;
  std::string settings;
};

}  // namespace zelta::test
