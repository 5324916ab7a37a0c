// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/ending.h"

#include <chrono>
#include <string>
#include <utility>

#include "IZeltaRecordingEngine.h"

namespace zelta::core_service {
namespace {

using namespace linuxsdk;

constexpr int kLingerMs = 5000;
constexpr std::chrono::milliseconds kFlushLimit(1000);

}  // namespace

ending::ending(base::event_loop& loop, engine_link& link, event_port& engine, base::logger log,
               actions steps)
    : loop_(loop), link_(link), engine_(engine), log_(std::move(log)), steps_(std::move(steps)) {}

const char* ending::reason() const {
  if (status_ == kExitDisk) return "the disk failed";
  switch (reason_) {
    case LEAVE_CODE_INIT:
      return "not joined";
    case LEAVE_CODE_SIG:
      return "signal";
    case LEAVE_CODE_NO_USERS:
      return "nobody there";
    case LEAVE_CODE_CLIENT_LEAVE:
      return "application left";
    default:
      return "channel lost";
  }
}

void ending::leave(uint32_t reason, int status) {
  if (has_begun()) return;
  // Files end at this moment.
  log_.notice("recording ends, reason " + std::to_string(reason));
  phase_ = phase::kFinishing;
  reason_ = reason;
  status_ = status;
  steps_.finish();
  check();
}

void ending::refuse(int status) {
  reason_ = LEAVE_CODE_INIT;
  status_ = status;
  linger();
}

void ending::on_leave_command() {
  if (phase_ == phase::kLingering) return done();
  leave(LEAVE_CODE_CLIENT_LEAVE, kExitDone);
}

void ending::on_engine_gone() {
  // Which is what lingering waits for.
  if (phase_ != phase::kLingering) log_.notice("the engine has hung up");
  on_leave_command();
}

void ending::on_signal() {
  if (has_begun()) return done();
  leave(LEAVE_CODE_SIG, kExitDone);
}

void ending::check() {
  if (phase_ != phase::kFinishing || !steps_.is_complete()) return;
  steps_.seal();
  // Whoever never joined has nothing to leave.
  if (reason_ != LEAVE_CODE_INIT) engine_.left(reason_);
  if (reason_ == LEAVE_CODE_CLIENT_LEAVE) return done();
  linger();
}

void ending::linger() {
  if (!link_.connected()) return done();
  phase_ = phase::kLingering;
  linger_timer_ = {loop_, kLingerMs, [this] { done(); }};
}

void ending::done() {
  if (phase_ == phase::kDone) return;
  phase_ = phase::kDone;
  linger_timer_.stop();
  link_.flush(kFlushLimit);
  log_.notice("recorder ends, reason " + std::to_string(reason_));
  loop_.stop();
}

}  // namespace zelta::core_service
