// SPDX-License-Identifier: Apache-2.0
// An engine whose inside a test can call, with a fake router and a log folder of its own.
#pragma once

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/log.h"
#include "fake_router.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "recording_handler.h"
#include "temp_dir.h"

namespace zelta::test {

using Lines = std::vector<std::string>;

class EngineProbe : public RecordingEngineImpl {
  using E = RecordingEngineImpl;

 public:
  using RecordingEngineImpl::RecordingEngineImpl;
  // Operations.
  using E::backup_args, E::checkRecoveryFlag, E::get_internal_test_cfg, E::needRecovery;
  using E::get_internal_val_from_cfg, E::get_uint_val_from_cfg, E::get_val_from_cfg, E::on_timer;
  using E::joinChannelValidationCheck, E::prepare_recovery_args, E::pushParamsToZRS;
  using E::set_record_folder, E::setup_recording_folder;
  // State.
  using E::args_, E::args_str_, E::avsync_type_, E::channelId_, E::config_, E::isSessionActive_;
  using E::joined_, E::logdir_, E::loopCnt_, E::m_handler, E::peers_, E::recovery_, E::stats_;
  using E::stopped_, E::thread_started_;
};

// Every line of the engine's in a log has its process, source, line and level: error for all but
// these, and for the command lines behind two of them.
inline void expect_levels(const std::string& log) {
  static const std::pair<const char*, std::regex> kOthers[] = {
      {"notice",
       std::regex("^(A recorder instance created|Recorder |Recording wrapper delete timer|"
                  "API call to leave channel|joinChannel failed to pushParamsToZRS|User trigger |"
                  "setLogLevel|enableModuleLog|setUserBackground|write_packet: |"
                  "ZELTA_FILE_ROOT = |=======params|recovery auto trigger)")},
      {"info", std::regex("^(======recovery|RECOVERY: |API call to stopped on error|"
                          "recording path is empty|using recordFileRootDir|\\[Wrapper\\] )")},
      {"warn", std::regex("^(Error occur, try to recover\\.|times is 0\\.)")},
  };
  const std::regex shape("[0-9TZ:.-]+ ([a-z]+) recording_engine \\(" + std::to_string(getpid()) +
                         "\\) \\S*src/(?:rec_engine|protocol)/[A-Za-z_]+\\.(?:cpp|h):[0-9]+: (.*)");
  std::string unlisted = "error";
  for (const std::string& line : lines_of(log)) {
    std::smatch parts;
    if (line.find(" recording_engine ") == std::string::npos) continue;
    ASSERT_TRUE(std::regex_match(line, parts, shape)) << line;
    const std::string message = parts[2];
    if (message.rfind("[Wrapper version]", 0) == 0) continue;
    const auto* const row = std::find_if(
        std::begin(kOthers), std::end(kOthers),
        [&message](const auto& other) { return std::regex_search(message, other.second); });
    const bool listed = row != std::end(kOthers);
    EXPECT_EQ(parts[1], listed ? row->first : unlisted) << line;
    if (listed) unlisted = message[0] == '=' ? row->first : "error";
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

  // Gives the engine a configuration file.
  void settings(const std::string& json) {
    settings_ = dir.file("c.json", json);
    config.cfgFilePath = settings_.data();
  }
  int join() { return engine->joinChannel("k", "room", 1, config); }
  // Messages logged since the last call, or since the start.
  Lines new_lines() {
    const Lines all = logged(engine->logdir_);
    const auto from = static_cast<std::ptrdiff_t>(std::exchange(seen_lines_, all.size()));
    return {all.begin() + from, all.end()};
  }
  bool said(const std::string& line) {
    const Lines lines = logged(engine->logdir_);
    return std::count(lines.begin(), lines.end(), line) > 0;
  }
  // The last packet that the engine has sent, with its fields in their order.
  template <class Packet, class... Values>
  void expect_sent(const Values&... values) const {
    EXPECT_EQ(Packet::fields(router.last<Packet>()), std::make_tuple(values...));
  }

  TempDir dir;
  FakeRouter::Seen router;
  RecordingHandler handler;
  std::unique_ptr<EngineProbe> engine;
  RecordingConfig config;

 private:
  size_t seen_lines_ = 0;
  std::string settings_;
};

}  // namespace zelta::test
