// SPDX-License-Identifier: Apache-2.0
// The recorder's end: expected, or a fault that a relaunch may mend.
#include <initializer_list>

#include <poll.h>

#include "base/clocks.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "rec_engine/engine_internals.h"

namespace zelta::recording {

namespace {

constexpr int kRecoveriesPerEngine = 3;
// Bits of a poll result that a new recorder can mend. A descriptor that isn't open (POLLNVAL) is a
// fault of ours, which it can't.
constexpr int kRecoverableEvents = 0x0008 | 0x0010 | 0x2000;
static_assert(kRecoverableEvents == (POLLERR | POLLHUP | POLLRDHUP));
constexpr int32_t kFinalLeaveReasons =
    LEAVE_CODE_SIG | LEAVE_CODE_NO_USERS | LEAVE_CODE_TIMER_CATCH;

}  // namespace

bool RecordingEngineImpl::on_error(int event) {
  if (needRecovery(event) && recovery_on_error() == 0) {
    m_handler->onWarning(WARN_RECOVERY_CORE_SERVICE_FAILURE);
    return true;
  }
  joined_ = false;
  isSessionActive_ = false;
  if (m_handler != nullptr) {
    // STAT_POLL_ERR and its kin have the values of the poll bits, so these are passed as they came.
    m_handler->onError(ERR_INTERNAL_FAILED, static_cast<STAT_CODE_TYPE>(event));
  }
  return true;
}

bool RecordingEngineImpl::needRecovery(int event) {
  const std::lock_guard<std::mutex> guard(recovery_.lock);
  // The flag's value is not shown: what reads these logs knows the line in this form.
  ENGINE_LOGF(INFO_LOG, "RECOVERY: needRecovery, event :%d, flag", event);
  return (event & kRecoverableEvents) != 0 && m_handler != nullptr && checkRecoveryFlag();
}

bool RecordingEngineImpl::checkRecoveryFlag() {
  const int32_t flag = recovery_.flag;
  return (flag & RECOVERY_FLAG_JOINED) != 0 &&
         (flag & (RECOVERY_FLAG_LEFT | RECOVERY_FLAG_FINAL_LEAVE)) == 0;
}

// The lock is held during the whole relaunch, so that a leave on another thread waits for the new
// recorder and then reaches it.
int RecordingEngineImpl::recovery_on_error() {
  ENGINE_LOG(WARN_LOG) << "Error occur, try to recover.";
  const std::lock_guard<std::mutex> guard(recovery_.lock);
  if (recovery_.times < 1) {
    ENGINE_LOG(WARN_LOG) << "times is 0.";
    return kRefused;
  }
  --recovery_.times;
  recovery_.recovery_stat = RECOVERY_STAT_RECOVERING;
  prepare_recovery_args();
  std::string program = "video_recorder";
  const int failed = pushStoredArgsToZRS(args_, program);
  if (failed != 0) return failed;
  recovery_.recovery_stat = RECOVERY_STAT_RECOVERED;
  if (config_.triggerMode != AUTOMATICALLY_MODE) {
    // Whether the service ran before or not: rather record too much than lose what was wanted.
    isSessionActive_ = true;
    ENGINE_LOG(NOTICE_LOG) << "recovery auto trigger start service";
    send<protocol::start_service_packet>([](auto& p) { p.uid = 0; });
  }
  return 0;
}

int RecordingEngineImpl::prepare_recovery_args() {
  args_.clear();
  const std::initializer_list<std::string> options = {
      "--recoveryid", std::to_string(kRecoveriesPerEngine - recovery_.times), "--recoverytime",
      std::to_string(base::tick_ms())};
  // Those of the relaunch before are known by their place: a channel or a key may have their names.
  if (recovery_options_at_) {
    const auto former = args_str_.begin() + static_cast<std::ptrdiff_t>(*recovery_options_at_);
    args_str_.erase(former, former + static_cast<std::ptrdiff_t>(options.size()));
  }
  recovery_options_at_ = args_str_.size();
  args_str_.insert(args_str_.end(), options);
  for (const std::string& entry : args_str_) args_.push_back(entry.c_str());
  args_.push_back(nullptr);
  return 0;
}

// Logged at a lower level than the first launch, which has shown the same options, and with the
// terminator, so that what the router was given is seen to its end.
int RecordingEngineImpl::pushStoredArgsToZRS(std::vector<const char*>& args, std::string& program) {
  loop_.logdir_ = logdir_;
  ENGINE_LOGF(INFO_LOG, "[Wrapper version] %s", kRevision);
  ENGINE_LOGF(INFO_LOG, "======recovery %s %d times ======", program.c_str(),
              kRecoveriesPerEngine - recovery_.times);
  for (const char* entry : args) ENGINE_LOGF(INFO_LOG, "%s", entry);
  return router_ ? router_->relaunch_recorder(args, &loop_) : kRefused;
}

void RecordingEngineImpl::on_leave(uint32_t reason) {
  {
    const std::lock_guard<std::mutex> guard(recovery_.lock);
    recovery_.flag |= RECOVERY_FLAG_LEFT;
    ENGINE_LOGF(INFO_LOG, "RECOVERY: on_leave");
  }
  joined_ = false;
  isSessionActive_ = false;
  if (m_handler != nullptr) m_handler->onLeaveChannel(static_cast<LEAVE_PATH_CODE>(reason));
  // Without the lock: the bit before it rules out a recovery already, so this one changes no
  // answer.
  if ((reason & static_cast<uint32_t>(kFinalLeaveReasons)) != 0) {
    recovery_.flag |= RECOVERY_FLAG_FINAL_LEAVE;
  }
}

}  // namespace zelta::recording
