// SPDX-License-Identifier: Apache-2.0
#include "c_interface/recording.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "c_interface/configuration.h"
#include "c_interface/sized_struct.h"

namespace zelta::c_interface {

namespace {

constexpr uint64_t kDefaultQueueBytes = uint64_t{64} << 20;
// Twice as much is reckoned with, and no machine has it.
constexpr uint64_t kMostQueueBytes = uint64_t{1} << 40;
constexpr size_t kMostChannelIdBytes = 64;
constexpr size_t kOptionsNeed = offsetof(zelta_options, callback);

// Of the recording whose callback this thread runs.
thread_local const recording_object* callback_of = nullptr;

size_t bound_of(const zelta_options& options) {
  return options.queue_bytes != 0 ? options.queue_bytes : kDefaultQueueBytes;
}

}  // namespace

// ---- Made ----------------------------------------------------------------------------------

outcome recording_object::read_options(const zelta_options* given, zelta_options& options) {
  outcome read = read_struct("options", given, kOptionsNeed, options);
  if (read.failed()) return read;
  if (options.delivery < ZELTA_DELIVERY_QUEUE || options.delivery > ZELTA_DELIVERY_CALLBACK) {
    return out_of_range("options.delivery", options.delivery, 0, ZELTA_DELIVERY_CALLBACK);
  }
  if (options.app_id == nullptr || *options.app_id == '\0') {
    return {ZELTA_ERROR_ARGUMENT, "options.app_id is null or empty"};
  }
  const bool by_callback = options.delivery == ZELTA_DELIVERY_CALLBACK;
  if (by_callback && options.callback == nullptr) return is_null("options.callback");
  if (!by_callback && options.callback != nullptr) {
    return {ZELTA_ERROR_ARGUMENT,
            "options.callback is set, it should be null with ZELTA_DELIVERY_QUEUE"};
  }
  if (options.queue_bytes > kMostQueueBytes) {
    return {ZELTA_ERROR_ARGUMENT, "options.queue_bytes is " + std::to_string(options.queue_bytes) +
                                      ", it should be at most " + std::to_string(kMostQueueBytes)};
  }
  return {};
}

recording_object::recording_object(zelta_recording* handle, const zelta_options& options)
    : handle_(handle),
      app_id_(options.app_id),
      callback_(options.callback),
      context_(options.context),
      store_(bound_of(options)) {}

recording_object::~recording_object() = default;

outcome recording_object::start() {
  if (callback_ == nullptr) {
    outcome opened = store_.open();
    if (opened.failed()) return opened;
  }
  return make_engine();
}

outcome recording_object::make_engine() {
  recording::IRecordingEngine* const made =
      recording::IRecordingEngine::createZeltaRecordingEngine(app_id_.c_str(), &translator_);
  if (made == nullptr) return {ZELTA_ERROR_MEMORY, "the engine could not be made"};
  engine_.reset(made);
  return {};
}

// ---- Joined --------------------------------------------------------------------------------

outcome recording_object::join(const char* channel_key, const char* channel_id, uint32_t uid,
                               const zelta_config* given) {
  if (in_callback()) return {ZELTA_ERROR_IN_CALLBACK, "a join from inside a callback"};
  if (channel_id == nullptr) return is_null("channel_id");
  const size_t bytes = std::strlen(channel_id);
  if (bytes < 1 || bytes > kMostChannelIdBytes) {
    return out_of_range("length of channel_id", static_cast<long long>(bytes), 1,
                        kMostChannelIdBytes);
  }
  recording::RecordingConfig config;
  outcome read = read_config(given, config);
  if (read.failed()) return read;

  const std::unique_lock<std::shared_mutex> whole(engine_lock_);
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  if (left_) return {ZELTA_ERROR_LEFT, "a recording that was left joins no more: make a new one"};
  if (joined_) return {ZELTA_ERROR_JOINED, "a recording joins once: make a new one"};
  // Before the call, because a callback may ask for something before it has returned.
  joined_ = true;
  const int code = engine_->joinChannel(channel_key, channel_id, uid, config);
  if (code == 0) return {};
  joined_ = false;
  // An engine remembers the command line of a recorder that couldn't be started, and would put it
  // in front of the next one's when that has to be started again.
  outcome renewed = make_engine();
  if (renewed.failed()) return renewed;
  return {code == -2 ? ZELTA_ERROR_CONFIGURATION : ZELTA_ERROR_REFUSED,
          "the join was refused; a line on standard error, or in recording_engine.log of the "
          "recording folder, says why"};
}

// ---- Commands ------------------------------------------------------------------------------

// A callback runs on the engine's thread, which its engine waits for before it goes.
std::shared_lock<std::shared_mutex> recording_object::keep_engine() {
  return in_callback() ? std::shared_lock<std::shared_mutex>()
                       : std::shared_lock<std::shared_mutex>(engine_lock_);
}

template <class Call>
outcome recording_object::command(const char* name, Call call) {
  const std::shared_lock<std::shared_mutex> kept = keep_engine();
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  if (!joined_) return {ZELTA_ERROR_NOT_JOINED, std::string(name) + " before a join"};
  if (left_) return {ZELTA_ERROR_LEFT, std::string(name) + " after the leave"};
  if (call(*engine_) == 0) return {};
  return {
      ZELTA_ERROR_REFUSED,
      std::string(name) + " was refused; recording_engine.log of the recording folder says why"};
}

outcome recording_object::folder(char* buffer, size_t size) {
  if (buffer == nullptr) return is_null("buffer");
  const std::shared_lock<std::shared_mutex> kept = keep_engine();
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  const char* const path = engine_ ? engine_->getProperties()->storageDir : folder_.c_str();
  if (!joined_ || path == nullptr) return {ZELTA_ERROR_NOT_JOINED, "there is no folder yet"};
  const size_t bytes = std::strlen(path) + 1;
  if (bytes > size) {
    return {ZELTA_ERROR_ARGUMENT, "the buffer has " + std::to_string(size) +
                                      " bytes, it should have " + std::to_string(bytes)};
  }
  std::memcpy(buffer, path, bytes);
  return {};
}

outcome recording_object::set_layout(const zelta_layout* given) {
  recording::VideoMixingLayout layout;
  std::vector<recording::VideoMixingLayout::Region> regions;
  outcome read = read_layout(given, layout, regions);
  if (read.failed()) return read;
  return command("a layout", [&](auto& engine) { return engine.setVideoMixingLayout(layout); });
}

outcome recording_object::set_user_background(uint32_t uid, const char* image_path) {
  return command("a background",
                 [&](auto& engine) { return engine.setUserBackground(uid, image_path); });
}

outcome recording_object::start_service() {
  return command("a start", [](auto& engine) { return engine.startService(); });
}

outcome recording_object::stop_service() {
  return command("a stop", [](auto& engine) { return engine.stopService(); });
}

outcome recording_object::set_log_level(int level) {
  if (level < ZELTA_LOG_FATAL || level > ZELTA_LOG_DEBUG) {
    return out_of_range("level", level, ZELTA_LOG_FATAL, ZELTA_LOG_DEBUG);
  }
  const std::shared_lock<std::shared_mutex> kept = keep_engine();
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  if (!engine_) return {ZELTA_ERROR_LEFT, "a log level after the finish"};
  engine_->setLogLevel(static_cast<recording::zelta_log_level>(level));
  return {};
}

// ---- Events --------------------------------------------------------------------------------

void recording_object::take(const zelta_event& event) {
  if (muted_) return;
  // The process of a recorder that has left ends next, which the engine tells as a failure unless
  // it has been left by then: to who is slow to take events all would have failed in the end.
  if (event.kind == ZELTA_EVENT_LEFT) recorder_left_ = true;
  if (event.kind == ZELTA_EVENT_JOINED) recorder_left_ = false;
  if (event.kind == ZELTA_EVENT_ERROR && recorder_left_) return;
  if (callback_ == nullptr) {
    store_.push(event);
    return;
  }
  callback_of = this;
  lent_ = &event;
  callback_(context_, handle_, &event);
  lent_ = nullptr;
  callback_of = nullptr;
}

bool recording_object::in_callback() const {
  return callback_of == this;
}

outcome recording_object::event_fd(int* fd) const {
  if (fd == nullptr) return is_null("fd");
  if (callback_ != nullptr) return {ZELTA_ERROR_NO_QUEUE, "the events come by callback"};
  *fd = store_.fd();
  return {};
}

outcome recording_object::next_event(int timeout_ms, const zelta_event** event) {
  if (timeout_ms < -1) {
    return {ZELTA_ERROR_ARGUMENT, "timeout_ms is " + std::to_string(timeout_ms) +
                                      ", it should be at least 0, or -1 for no limit"};
  }
  if (callback_ != nullptr) return {ZELTA_ERROR_NO_QUEUE, "the events come by callback"};
  return {store_.next(timeout_ms, *event), {}};
}

outcome recording_object::copy_event(const zelta_event* event, const zelta_event** copy) {
  if (event == nullptr) return is_null("event");
  if (in_callback() && event == lent_) return store_.copy(*event, *copy);
  if (!store_.hold(event)) return {ZELTA_ERROR_UNKNOWN_EVENT, "it is not lent, or given back"};
  *copy = event;
  return {};
}

outcome recording_object::release_event(const zelta_event* event) {
  if (event == nullptr || store_.release(event)) return {};
  return {ZELTA_ERROR_UNKNOWN_EVENT, "it is no copy, or was released before"};
}

// ---- Left ----------------------------------------------------------------------------------

outcome recording_object::leave() {
  if (in_callback()) {
    // Also where another thread's leave waits for this callback: nothing is to come after it.
    muted_ = true;
    if (left_.exchange(true)) return {ZELTA_ERROR_LEFT, "it was left before"};
    if (engine_->leaveChannel() == 0) return {};
    left_ = muted_ = false;
    return {ZELTA_ERROR_REFUSED, "the log says why"};
  }
  const std::unique_lock<std::shared_mutex> whole(engine_lock_);
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  if (!joined_) return {ZELTA_ERROR_NOT_JOINED, "a leave before a join"};
  if (thread_ended_) return {ZELTA_ERROR_LEFT, "it was left before"};
  left_ = true;
  if (engine_->leaveChannel() != 0) {
    left_ = false;
    return {ZELTA_ERROR_REFUSED, "the log says why"};
  }
  thread_ended_ = true;
  store_.close();
  return {};
}

outcome recording_object::finish() {
  if (in_callback()) return {ZELTA_ERROR_IN_CALLBACK, "a finish from inside a callback"};
  const std::unique_lock<std::shared_mutex> whole(engine_lock_);
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  end_engine_locked();
  return {};
}

outcome recording_object::release() {
  if (in_callback()) return {ZELTA_ERROR_IN_CALLBACK, "a release from inside a callback"};
  store_.abandon();
  const std::unique_lock<std::shared_mutex> whole(engine_lock_);
  if (released_) return {ZELTA_ERROR_HANDLE, {}};
  end_engine_locked();
  released_ = true;
  return {};
}

void recording_object::end_engine_locked() {
  if (!engine_) return;
  const char* const path = engine_->getProperties()->storageDir;
  if (joined_ && path != nullptr) folder_ = path;
  left_ = true;
  // Before the pointer is cleared, because callbacks that still run may use it.
  engine_->leaveChannel();
  thread_ended_ = true;
  store_.close();
  engine_.reset();
}

// ---- Details -------------------------------------------------------------------------------

void recording_object::set_detail(const std::string& detail) {
  const std::lock_guard<std::mutex> guard(detail_lock_);
  detail_ = detail;
}

std::string recording_object::detail() {
  const std::lock_guard<std::mutex> guard(detail_lock_);
  return detail_;
}

}  // namespace zelta::c_interface
