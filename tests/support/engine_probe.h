// SPDX-License-Identifier: Apache-2.0
// An engine whose inside a test can call, with a fake router and a log folder of its own.
#pragma once

#include <algorithm>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "fake_router.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "recording_handler.h"
#include "temp_dir.h"

namespace zelta::test {

class EngineProbe : public RecordingEngineImpl {
 public:
  using RecordingEngineImpl::RecordingEngineImpl;
  // Operations.
  using RecordingEngineImpl::backup_args;
  using RecordingEngineImpl::checkRecoveryFlag;
  using RecordingEngineImpl::get_internal_test_cfg;
  using RecordingEngineImpl::get_internal_val_from_cfg;
  using RecordingEngineImpl::get_uint_val_from_cfg;
  using RecordingEngineImpl::get_val_from_cfg;
  using RecordingEngineImpl::joinChannelValidationCheck;
  using RecordingEngineImpl::needRecovery;
  using RecordingEngineImpl::on_timer;
  using RecordingEngineImpl::prepare_recovery_args;
  using RecordingEngineImpl::pushParamsToZRS;
  using RecordingEngineImpl::set_record_folder;
  using RecordingEngineImpl::setup_recording_folder;
  // State.
  using RecordingEngineImpl::args_;
  using RecordingEngineImpl::args_str_;
  using RecordingEngineImpl::avsync_type_;
  using RecordingEngineImpl::channelId_;
  using RecordingEngineImpl::config_;
  using RecordingEngineImpl::isSessionActive_;
  using RecordingEngineImpl::joined_;
  using RecordingEngineImpl::logdir_;
  using RecordingEngineImpl::loopCnt_;
  using RecordingEngineImpl::m_handler;
  using RecordingEngineImpl::peers_;
  using RecordingEngineImpl::recovery_;
  using RecordingEngineImpl::router_;
  using RecordingEngineImpl::stats_;
  using RecordingEngineImpl::stopped_;
  using RecordingEngineImpl::thread_started_;
};

// Every line of the engine's in a log has its process, source, line and level: error for all but
// these, and for the command lines behind two of them.
inline void expect_levels(const std::string& log) {
  static const std::vector<std::pair<std::string, std::string>> kOthers = {
      {"A recorder instance created", "notice"},
      {"Recorder ", "notice"},
      {"Recording wrapper delete timer", "notice"},
      {"API call to leave channel", "notice"},
      {"joinChannel failed to pushParamsToZRS", "notice"},
      {"User trigger ", "notice"},
      {"setLogLevel", "notice"},
      {"enableModuleLog", "notice"},
      {"setUserBackground", "notice"},
      {"write_packet: ", "notice"},
      {"ZELTA_FILE_ROOT = ", "notice"},
      {"=======params", "notice"},
      {"recovery auto trigger", "notice"},
      {"======recovery", "info"},
      {"RECOVERY: ", "info"},
      {"API call to stopped on error", "info"},
      {"recording path is empty", "info"},
      {"using recordFileRootDir", "info"},
      {"[Wrapper] ", "info"},
      {"Error occur, try to recover.", "warn"},
      {"times is 0.", "warn"},
  };
  const std::regex shape("[0-9TZ:.-]+ ([a-z]+) recording_engine \\(" + std::to_string(getpid()) +
                         "\\) \\S*src/(?:rec_engine|protocol)/[A-Za-z_]+\\.(?:cpp|h):[0-9]+: (.*)");
  std::string unlisted = "error";
  for (const std::string& line : lines_of(log)) {
    std::smatch parts;
    if (line.find(" recording_engine ") == std::string::npos) continue;
    ASSERT_TRUE(std::regex_match(line, parts, shape)) << line;
    const std::string message = parts[2];
    const auto row = std::find_if(kOthers.begin(), kOthers.end(), [&message](const auto& other) {
      return message.rfind(other.first, 0) == 0;
    });
    if (message.rfind("[Wrapper version]", 0) == 0) continue;
    EXPECT_EQ(parts[1], row != kOthers.end() ? row->second : unlisted) << line;
    if (row != kOthers.end()) unlisted = message[0] == '=' ? row->second : "error";
  }
}

// Levels and modules are the whole process's: every test starts from the same.
class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    base::log_config::set_log_level(base::INFO_LOG);
    base::log_config::enable_all_modules();
    engine = std::make_unique<EngineProbe>("app", &handler,
                                           std::make_unique<FakeRouter>(router).release());
    engine->logdir_ = dir.path();
    config.recordFileRootDir = const_cast<char*>(dir.path().c_str());
  }

  ~EngineTest() override {
    engine.reset();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
      if (entry.path().filename() == "recording_engine.log") expect_levels(read_file(entry.path()));
    }
  }

  // Messages logged since the last call, or since the start.
  std::vector<std::string> new_lines() {
    std::vector<std::string> all = logged(engine->logdir_);
    std::vector<std::string> fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_lines_),
                                   all.end());
    seen_lines_ = all.size();
    return fresh;
  }
  bool said(const std::string& line) {
    const auto lines = logged(engine->logdir_);
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  TempDir dir;
  FakeRouter::Seen router;
  RecordingHandler handler;
  std::unique_ptr<EngineProbe> engine;
  RecordingConfig config;

 private:
  size_t seen_lines_ = 0;
};

}  // namespace zelta::test
