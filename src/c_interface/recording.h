// SPDX-License-Identifier: Apache-2.0
// One recording of the C interface: an engine, what the application may ask of it now, and where
// its events go.
//
// Thread rule: as zelta_recording.h says. The engine's thread holds no lock of this class's in a
// callback, because a leave waits for that thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "IZeltaRecordingEngine.h"
#include "c_interface/event_store.h"
#include "c_interface/event_translator.h"
#include "c_interface/outcome.h"

namespace zelta::c_interface {

class recording_object final : private event_sink {
 public:
  // `options` have been checked by read_options().
  recording_object(zelta_recording* handle, const zelta_options& options);
  ~recording_object();
  recording_object(const recording_object&) = delete;
  recording_object& operator=(const recording_object&) = delete;

  static outcome read_options(const zelta_options* given, zelta_options& options);
  outcome start();

  outcome join(const char* channel_key, const char* channel_id, uint32_t uid,
               const zelta_config* config);
  outcome folder(char* buffer, size_t size);
  outcome set_layout(const zelta_layout* layout);
  outcome set_user_background(uint32_t uid, const char* image_path);
  outcome start_service();
  outcome stop_service();
  outcome set_log_level(int level);
  outcome leave();
  outcome finish();
  outcome release();

  outcome event_fd(int* fd) const;
  outcome next_event(int timeout_ms, const zelta_event** event);
  outcome copy_event(const zelta_event* event, const zelta_event** copy);
  outcome release_event(const zelta_event* event);

  // Whether this thread is inside a callback of this recording.
  bool in_callback() const;
  void set_detail(const std::string& detail);
  std::string detail();

 private:
  struct engine_release {
    void operator()(recording::IRecordingEngine* engine) const { engine->release(); }
  };

  outcome make_engine();
  void take(const zelta_event& event) override;
  std::shared_lock<std::shared_mutex> keep_engine();
  void end_engine_locked();
  template <class Call>
  outcome command(const char* name, Call call);

  zelta_recording* const handle_;
  const std::string app_id_;
  const zelta_event_callback callback_;  // null: by queue
  void* const context_;
  event_store store_;
  event_translator translator_{*this};
  std::atomic<bool> joined_{false};
  std::atomic<bool> left_{false};
  // Left from inside a callback: no other one may come, though the engine has read more.
  std::atomic<bool> muted_{false};
  // Whole to join, leave, finish and release, shared to use the engine; callbacks need none, since
  // the engine outlives its thread.
  std::shared_mutex engine_lock_;
  bool thread_ended_ = false;
  bool released_ = false;
  // Null from a finish or release on.
  std::unique_ptr<recording::IRecordingEngine, engine_release> engine_;
  std::string folder_;          // once there is no engine to ask
  bool recorder_left_ = false;  // of the engine's thread
  // The event that is being lent, on the engine's thread.
  const zelta_event* lent_ = nullptr;
  std::mutex detail_lock_;
  std::string detail_;
};

}  // namespace zelta::c_interface
