// SPDX-License-Identifier: Apache-2.0
// The engine's life and commands: made, left, told what to do, and its thread.
#include "rec_engine/RecordingEngineImpl.h"

#include <csignal>
#include <ctime>
#include <utility>

#include <pthread.h>

#include "base/log_file.h"
#include "link/pipe_router.h"
#include "rec_engine/engine_internals.h"

namespace zelta::recording {

namespace {

constexpr int kTimerIntervalMs = 500;
constexpr uint32_t kTicksPerReport = 4;
constexpr uint32_t kTicksPerStatistics = 20;

// Addresses are logged to tell the objects of one log apart; their low half does.
unsigned address_of(const void* object) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(object));
}

}  // namespace

uint64_t get_ns() {
  std::timespec now{};
  return clock_gettime(CLOCK_MONOTONIC, &now) == 0 ? static_cast<uint64_t>(now.tv_nsec) : 0;
}

// ---- Made ----------------------------------------------------------------------------------

IRecordingEngine* IRecordingEngine::createZeltaRecordingEngine(
    const char* appId, IRecordingEngineEventHandler* eventHandler) {
  // There is no engine yet, so these go to the process's default log.
  const auto refuse = [](int line, const char* why) {
    base::log(ERROR_LOG, base::ZELTA_LOG_MODULE_RECORDING_ENGINE, "(%d) %s:%d: %s", getpid(),
              __FILE__, line, why);
  };
  if (!is_set(appId)) return refuse(__LINE__, "app id is empty"), nullptr;
  if (eventHandler == nullptr) return refuse(__LINE__, "event handler is empty"), nullptr;
  // A recorder that dies while we write to it must not take the application with it.
  std::signal(SIGPIPE, SIG_IGN);
  IRecordingEngine* made = nullptr;
  guarded("createZeltaRecordingEngine", "", [&] {
    auto router = std::make_unique<base::pipe_router>(true);
    // The engine is its own owner: release() ends it.
    made = std::make_unique<RecordingEngineImpl>(appId, eventHandler, router.get()).release();
    static_cast<void>(router.release());
    return 0;
  });
  return made;
}

RecordingEngineImpl::RecordingEngineImpl(const char* appId, IRecordingEngineEventHandler* handler,
                                         base::router* r)
    : m_handler(handler), m_appId(appId != nullptr ? appId : ""), router_(r) {
  if (router_) router_->register_listener(this);
  ENGINE_LOGF(NOTICE_LOG, "A recorder instance created: %x", address_of(this));
}

RecordingEngineImpl::~RecordingEngineImpl() {
  ENGINE_LOGF(NOTICE_LOG, "Recorder %x is ready to be release", address_of(this));
  std::free(properties_.storageDir);  // NOLINT: made by malloc, as the public type promises
  properties_.storageDir = nullptr;
  counters_.clear();
  for (auto& peer : peers_) peer.second.reset();
  if (router_) {
    router_->shutdown();
    router_.reset();
  }
  if (timer_ != nullptr) {
    loop_.remove_timer(timer_);
    timer_ = nullptr;
    ENGINE_LOG(NOTICE_LOG) << "Recording wrapper delete timer";
  }
  // A server may make a thousand short recordings a minute.
  base::log_file_close(logdir_);
}

int RecordingEngineImpl::release() {
  IRecordingEngine* const engine = this;
  engine->leaveChannel();
  // An engine that was left before it joined, or that joined again, has a thread that no leave
  // waits for; it ends at its first tick.
  if (!in_engine_thread() && thread_.joinable()) thread_.join();
  const std::unique_ptr<IRecordingEngine> last(engine);
  return 0;
}

const RecordingEngineProperties* RecordingEngineImpl::getProperties() {
  return &properties_;
}

// ---- Left ----------------------------------------------------------------------------------

bool RecordingEngineImpl::in_engine_thread() const {
  return engine_thread_runs_ && pthread_equal(pthread_self(), engine_thread_) != 0;
}

int RecordingEngineImpl::leaveChannel() {
  return guarded("leaveChannel", logdir_, [&] {
    {
      const std::lock_guard<std::mutex> guard(recovery_.lock);
      recovery_.flag |= RECOVERY_FLAG_LEFT;
    }
    IRecordingEngine* const engine = this;
    engine->stoppedOnError();
    if (in_engine_thread() || stopped_) return 0;
    {
      const std::lock_guard<base::Mutexer> guard(stopped_mutex_);
      if (stopped_) return 0;
      stopped_ = true;
    }
    joined_ = false;
    isSessionActive_ = false;
    // Asked a second time on purpose: joining the thread that we are on would never return.
    if (in_engine_thread()) {
      ENGINE_LOG(NOTICE_LOG) << "API call to leave channel in event loop thread";
      return leave_channel();
    }
    ENGINE_LOG(NOTICE_LOG) << "API call to leave channel not in event loop thread";
    if (thread_started_ && thread_.joinable()) {
      // Its next tick sees stopped_, tells the recorder and stops the loop.
      thread_.join();
      thread_started_ = false;
      return 0;
    }
    end_thread_from_inside();
    return 0;
  });
}

int RecordingEngineImpl::leave_channel() {
  send<protocol::leave_packet>([](auto& p) { p.reason = 0; });
  end_thread_from_inside();
  return 0;
}

void RecordingEngineImpl::end_thread_from_inside() {
  loop_.stop();
  if (!thread_started_) return;
  thread_.detach();
  thread_started_ = false;
}

int RecordingEngineImpl::stoppedOnError() {
  return guarded("stoppedOnError", logdir_, [&] {
    if (!in_engine_thread()) {
      ENGINE_LOG(INFO_LOG) << "API call to stopped on error not in event loop thread";
      return 0;
    }
    ENGINE_LOG(INFO_LOG) << "API call to stopped on error in event loop thread";
    send<protocol::leave_packet>([](auto& p) { p.reason = 0; });
    loop_.stop();
    return 0;
  });
}

// ---- Commands ------------------------------------------------------------------------------

bool RecordingEngineImpl::may_toggle_service() const {
  return joined_ && config_.triggerMode != AUTOMATICALLY_MODE;
}

int RecordingEngineImpl::startService() {
  return guarded("startService", logdir_, [&] {
    if (!may_toggle_service()) {
      ENGINE_LOG(ERROR_LOG) << "failed to start service, joined channel: " << joined_.load()
                            << " trigger mode: " << config_.triggerMode;
      return kRefused;
    }
    if (isSessionActive_) {
      ENGINE_LOG(ERROR_LOG) << "engine has already started service";
      return kRefused;
    }
    isSessionActive_ = true;
    ENGINE_LOG(NOTICE_LOG) << "User trigger start service";
    send<protocol::start_service_packet>([](auto& p) { p.uid = 0; });
    return 0;
  });
}

int RecordingEngineImpl::stopService() {
  return guarded("stopService", logdir_, [&] {
    if (!may_toggle_service()) {
      ENGINE_LOG(ERROR_LOG) << "failed to stop service, joined channel: " << joined_.load()
                            << " trigger mode: " << config_.triggerMode;
      return kRefused;
    }
    if (!isSessionActive_) {
      ENGINE_LOG(ERROR_LOG) << "engine hasn't started service yet ";
      return kRefused;
    }
    isSessionActive_ = false;
    ENGINE_LOG(NOTICE_LOG) << "User trigger stop service";
    send<protocol::stop_service_packet>([](auto& p) { p.uid = 0; });
    return 0;
  });
}

int RecordingEngineImpl::setLogLevel(zelta_log_level level) {
  return guarded("setLogLevel", logdir_, [&] {
    ENGINE_LOG(NOTICE_LOG) << "setLogLevel"
                           << " , set log level to : " << static_cast<int>(level);
    // The public levels have the internal numbers.
    log_config::set_log_level(static_cast<base::log_levels>(level));
    send<protocol::set_log_level_packet>(
        [level](auto& p) { p.level = static_cast<uint32_t>(level); });
    return 0;
  });
}

int RecordingEngineImpl::enableModuleLog(uint32_t module, bool enable) {
  return guarded("enableModuleLog", logdir_, [&] {
    ENGINE_LOG(NOTICE_LOG) << "enableModuleLog"
                           << " , enable " << enable << " log for module :" << module;
    if (enable) {
      log_config::enable_module(module);
    } else {
      log_config::disable_module(module);
    }
    send<protocol::log_enable_module_packet>([module, enable](auto& p) {
      p.module = module;
      p.enable = enable ? 1 : 0;
    });
    return 0;
  });
}

int RecordingEngineImpl::setUserBackground(uid_t uid, const char* imagePath) {
  return guarded("setUserBackground", logdir_, [&] {
    const char* const path = imagePath != nullptr ? imagePath : "";
    ENGINE_LOG(NOTICE_LOG) << "setUserBackground"
                           << " : uid :" << uid << " ,path :" << path;
    send<protocol::set_user_background_packet>([uid, path](auto& p) {
      p.uid = uid;
      p.img_path = path;
    });
    return 0;
  });
}

int RecordingEngineImpl::setVideoMixingLayout(const VideoMixingLayout& layout) {
  return guarded("setVideoMixingLayout", logdir_, [&] { return _setVideoMixingLayout(layout); });
}

int RecordingEngineImpl::_setVideoMixingLayout(const VideoMixingLayout& layout) {
  std::vector<unsigned char> bytes;
  if (!encodeMixingLayout(layout, bytes, logdir_)) return kBadConfiguration;
  if (!router_) return 0;
  ENGINE_LOG(NOTICE_LOG) << "write_packet: encodedlayout size: " << bytes.size();
  send<protocol::video_mixing_layout_packet>([&bytes](auto& p) { p.data = bytes; });
  return 0;
}

int RecordingEngineImpl::setParameters(const char* parameters) {
  return guarded("setParameters", logdir_, [&] {
    send<protocol::parameters_packet>(
        [parameters](auto& p) { p.parameters = parameters != nullptr ? parameters : ""; });
    return 0;
  });
}

// ---- Engine thread -------------------------------------------------------------------------

int RecordingEngineImpl::run_internal() {
  engine_thread_ = pthread_self();
  engine_thread_runs_ = true;
  timer_ = loop_.add_timer(kTimerIntervalMs, &RecordingEngineImpl::timer_callback, this);
  const int result = loop_.run(false);
  // The leave that stopped the loop, and what stands before it, may still wait for room in the
  // pipe.
  if (router_) router_->flush();
  engine_thread_runs_ = false;
  return result;
}

void RecordingEngineImpl::timer_callback(int /*fd*/, void* context) {
  static_cast<RecordingEngineImpl*>(context)->on_timer();
}

void RecordingEngineImpl::on_timer() {
  ++loopCnt_;
  if (loopCnt_ % kTicksPerStatistics == 0) {
    // The elder frame packets and pictures are counted and left out: no recorder of ours sends the
    // former, and pictures come too seldom to tell anything.
    ENGINE_LOG(INFO_LOG) << "[Wrapper] channel id: " << channelId_
                         << " packet stats, total: " << stats_.totalPackets
                         << ", callback_->AudioFrameReceived: pcmPackets: " << stats_.pcmPackets
                         << ", pcmTotalPackets: " << stats_.pcmTotalPackets
                         << ", aacPackets: " << stats_.aacPackets
                         << ", yuvF2Packets: " << stats_.yuvF2Packets
                         << ", h264F2Packets: " << stats_.h264F2Packets
                         << ", errPackets: " << stats_.errPackets
                         << ", otherPackets: " << stats_.otherPackets;
    stats_.clean();
  }
  if (loopCnt_ % kTicksPerReport == 0) report_counts();
  if (stopped_) {
    send<protocol::leave_packet>([](auto& p) { p.reason = 0; });
    loop_.stop();
  }
}

}  // namespace zelta::recording
