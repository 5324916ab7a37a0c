// SPDX-License-Identifier: Apache-2.0
// The engine with its real router and loop and a recorder that does what a test tells it.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "recording_handler.h"
#include "temp_dir.h"

namespace zelta::test {

using Clock = std::chrono::steady_clock;

struct Releaser {
  void operator()(IRecordingEngine* engine) const { engine->release(); }
};

class LinkTest : public ::testing::Test {
 protected:
  LinkTest() {
    config.recordFileRootDir = const_cast<char*>(dir.path().c_str());
    setenv("ZELTA_SERVICE_DIR", FAKE_SERVICE_DIR, 1);
  }
  ~LinkTest() override { unsetenv("ZELTA_SERVICE_DIR"); }

  int join(const std::string& script) {
    setenv("FAKE_RECORDER", script.c_str(), 1);
    engine.reset(IRecordingEngine::createZeltaRecordingEngine("app", &handler));
    callable = engine.get();
    return engine->joinChannel("key", "room", 1, config);
  }
  std::string log() const {
    const char* const folder = engine->getProperties()->storageDir;
    return read_file(std::string(folder != nullptr ? folder : "") + "recording_engine.log");
  }
  static bool has_children() { return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

  TempDir dir;
  RecordingHandler handler;
  RecordingConfig config;
  std::unique_ptr<IRecordingEngine, Releaser> engine;
  // The same for callbacks, which may still come while the other is being reset.
  std::atomic<IRecordingEngine*> callable{nullptr};
};

}  // namespace zelta::test
