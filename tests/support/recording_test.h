// SPDX-License-Identifier: Apache-2.0
// Recordings of the real recorder through the engine, and what ffprobe and ffmpeg say of the files.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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

struct Releaser {
  void operator()(IRecordingEngine* engine) const { engine->release(); }
};

inline std::string output_of(const std::string& command) {
  std::string text;
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
  std::array<char, 4096> part{};
  while (const size_t got = fread(part.data(), 1, part.size(), pipe.get())) {
    text.append(part.data(), got);
  }
  return text;
}

// "h264 aac" and so on, in the order of the streams.
inline std::string codecs_of(const std::string& file) {
  std::string all;
  for (const std::string& line : lines_of(
           output_of("ffprobe -v error -show_entries stream=codec_name -of csv=p=0 " + file))) {
    all += (all.empty() ? "" : " ") + line;
  }
  return all;
}

inline double seconds_of(const std::string& file) {
  return std::atof(
      output_of("ffprobe -v error -show_entries format=duration -of csv=p=0 " + file).c_str());
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

  void join(const std::string& server) {
    setenv("ZELTA_CHANNEL_SERVER", server.c_str(), 1);
    engine.reset(IRecordingEngine::createZeltaRecordingEngine("app", &handler));
    ASSERT_EQ(engine->joinChannel("", "room", 77, config), 0);
    folder = engine->getProperties()->storageDir;
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
  Json::Value files() const { return read_json(folder + "recording.json")["files"]; }
  std::string log() const { return read_file(folder + "recording_engine.log"); }

  TempDir dir;
  RecordingHandler handler;
  RecordingConfig config;
  std::unique_ptr<IRecordingEngine, Releaser> engine;
  std::string folder;
  std::string settings;
};

}  // namespace zelta::test
