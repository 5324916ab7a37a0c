// SPDX-License-Identifier: Apache-2.0
// The engine with its real router and loop and a recorder that does what a test tells it.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "recording_handler.h"
#include "temp_dir.h"

namespace zelta::test {

using Clock = std::chrono::steady_clock;

class LinkTest : public ::testing::Test {
 protected:
  LinkTest() {
    config.recordFileRootDir = const_cast<char*>(dir.path().c_str());
    setenv("ZELTA_SERVICE_DIR", FAKE_SERVICE_DIR, 1);
  }
  // No recorder outlives its engine.
  ~LinkTest() override {
    engine.reset();
    EXPECT_FALSE(has_children());
    unsetenv("ZELTA_SERVICE_DIR");
  }

  int join(const std::string& script) {
    setenv("FAKE_RECORDER", script.c_str(), 1);
    engine.reset();
    handler.clear();
    engine.reset(IRecordingEngine::createZeltaRecordingEngine("app", &handler));
    callable = engine.get();
    const int code = engine->joinChannel("key", "room", 1, config);
    const char* const storage = engine->getProperties()->storageDir;
    folder = storage != nullptr ? storage : "";
    return code;
  }
  // And waits for the call that the script leads to.
  ::testing::AssertionResult join(const std::string& script, const std::string& call) {
    if (join(script) != 0) return ::testing::AssertionFailure() << "no join with " << script;
    if (handler.wait_for(call)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << script << " has not led to " << call;
  }
  // A layout of a megabyte, which is more than a pipe holds, so many times.
  static void send_layouts(IRecordingEngine& to, int count) {
    const std::string data(1 << 20, 'x');
    VideoMixingLayout layout;
    layout.appData = data.data();
    layout.appDataLength = 1 << 20;
    while (count-- > 0) to.setVideoMixingLayout(layout);
  }
  std::string log() const { return read_file(folder + "recording_engine.log"); }
  bool log_matches(const std::string& pattern) const {
    return std::regex_search(log(), std::regex(pattern));
  }
  static bool has_children() { return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

  TempDir dir;
  RecordingHandler handler;
  RecordingConfig config;
  std::string folder;  // of the recording
  std::unique_ptr<IRecordingEngine, Releaser> engine;
  // The same for callbacks, which may still come while the other is being reset.
  std::atomic<IRecordingEngine*> callable{nullptr};
};

}  // namespace zelta::test
