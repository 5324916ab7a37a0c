// SPDX-License-Identifier: Apache-2.0
// An engine whose inside a test can call, with a fake router and a log folder of its own.
#pragma once

#include <algorithm>
#include <memory>
#include <string>

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
