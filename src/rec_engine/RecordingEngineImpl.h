// SPDX-License-Identifier: Apache-2.0
// The recording engine: the one class behind IRecordingEngine.
//
// Two threads touch an engine. The application's: factory, commands, release. The engine's:
// run_internal(), the timer, every packet, recovery, every call into the application's handler.
// Data without an atomic type or a named lock belongs to the engine thread once a join has started
// it. No two of the locks stopped_mutex_, recovery_.lock and log_config::logger_mutex are held at
// once.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "IZeltaRecordingEngine.h"
#include "base/atomic.h"
#include "base/avsync.h"
#include "base/event_loop.h"
#include "base/locks.h"
#include "base/protocol/ProtocolHandler.h"
#include "base/router.h"
#include "protocol/mixing_layout.h"

namespace zelta::recording {

// The nanoseconds field of the monotonic clock, 0 to 999,999,999; 0 when the clock can't be read.
uint64_t get_ns();

class RecordingEngineImpl : public IRecordingEngine, public protocol::ProtocolHandler {
 public:
  // Frames delivered for one user since they joined.
  struct mediaFrameCnt {
    uint32_t yuvCnt = 0;
    uint32_t h264Cnt = 0;
    uint32_t jpgCnt = 0;
    uint32_t pcmCnt = 0;
  };
  using mapUidToFrameCnt = std::map<uint32_t, std::unique_ptr<mediaFrameCnt>>;

  // Where the latest recovery got to; a record, nothing branches on it.
  enum RecoveryStat {
    RECOVERY_STAT_INIT = 0,
    RECOVERY_STAT_RECOVERING = 1,  // an attempt has started
    RECOVERY_STAT_RECOVERED = 2,   // the relaunch was handed over
  };
  // Facts of the session; bits of RecoveryModule::flag, set and never cleared.
  enum RecoveryFlag : int32_t {
    RECOVERY_FLAG_JOINED = 1,       // the recorder has been in the channel
    RECOVERY_FLAG_LEFT = 2,         // the recorder or the application has left
    RECOVERY_FLAG_FINAL_LEAVE = 4,  // the recorder left for a reason of its own
  };
  struct RecoveryModule {
    RecoveryStat recovery_stat = RECOVERY_STAT_INIT;
    int32_t times = 3;  // recoveries that are left in the life of the engine
    std::atomic<int32_t> flag{0};
    std::mutex lock;  // guards the three above, with one exception in on_leave
  };

  // Takes `r`, which may be null: then nothing can be launched or sent. The handler is borrowed.
  RecordingEngineImpl(const char* appId, IRecordingEngineEventHandler* handler, base::router* r);
  ~RecordingEngineImpl() override;

  int joinChannel(const char* channelKey, const char* channelId, uid_t uid,
                  const RecordingConfig& config) override;
  int setVideoMixingLayout(const VideoMixingLayout& layout) override;
  int stoppedOnError() override;
  int leaveChannel() override;
  int release() override;
  const RecordingEngineProperties* getProperties() override;
  int startService() override;
  int stopService() override;
  int setUserBackground(uid_t uid, const char* imagePath) override;
  int setLogLevel(zelta_log_level level) override;

  // Passes a JSON text on to the recorder, unread; null is an empty text. 0.
  virtual int setParameters(const char* parameters);
  // The link broke: recovers, or tells the application. Always true.
  bool on_error(int error) override;
  // Lets a derived engine append option pairs to the command line; non-zero aborts the join.
  virtual int pushParamsToZRSEx(const RecordingConfig* config, std::vector<const char*>& args);
  // Switches the log modules of a mask, here and in the recorder. 0.
  virtual int enableModuleLog(uint32_t module, bool enable);

  void on_user_joined(uint32_t uid, const std::string& info) override;
  void on_user_dropped(uint32_t uid) override;
  void on_active_speaker(uint32_t uid) override;
  void on_audio_volume_indication(const std::vector<unsigned int>& uids,
                                  const std::vector<unsigned int>& volumes) override;
  void on_audio_frame(const protocol::pcm_frame& frame) override;
  void on_audio_frame(const protocol::aac_frame& frame) override;
  void on_video_frame(const protocol::yuv_frame& frame) override;
  void on_video_frame(const protocol::h264_frame& frame) override;
  void on_video_frame(const protocol::yuv_frame2& frame) override;
  void on_video_frame(const protocol::h264_frame2& frame) override;
  void on_video_frame(const protocol::jpg_frame& frame) override;
  void on_recorder_error(int32_t error, uint32_t stat_code) override;
  void on_leave(uint32_t reason) override;
  void on_set_user_background(uint32_t uid, const std::string& img_path) override;
  void on_join_channel_success(uint32_t uid, const char* channel_id) override;
  void on_first_video_decoded(uint32_t uid, int width, int height, int elapsed) override;
  void on_first_audio_frame(uint32_t uid, int elapsed) override;
  void on_receiving_stream_status_changed(int audio, int video) override;
  void on_connection_interrupted() override;
  void on_connection_lost() override;

 protected:
  // ---- Joining, on the application's thread. ----
  int joinChannelValidationCheck(const char* channelKey, const char* channelId, uid_t uid,
                                 const RecordingConfig* config);
  int pushParamsToZRS(const char* channelKey, const char* channelId, uid_t uid,
                      const RecordingConfig* pConfig, std::vector<const char*>& args,
                      std::string& program);
  int setup_recording_folder(const RecordingConfig* config, std::string& recordPath);
  void set_record_folder(std::string& path, std::string& channelId);
  std::string get_val_from_cfg(const char* cfgFile, const char* key);
  std::string get_internal_val_from_cfg(const char* cfgFile, const char* key);
  uint32_t get_uint_val_from_cfg(const char* cfgFile, const char* key);
  int get_internal_test_cfg(const RecordingConfig* config, std::string& vocs, uint32_t& vocsPort,
                            std::string& vos, uint32_t& vosPort);
  int backup_args(std::vector<const char*>& args);

  // ---- The engine thread. ----
  int run_internal();
  static void timer_callback(int fd, void* context);
  void on_timer();
  void report_counts();
  void report_media_count();
  void report_video_count();
  void report_audio_count();
  int leave_channel();
  int _setVideoMixingLayout(const VideoMixingLayout& layout);

  // ---- Recovery, on the engine thread. ----
  bool needRecovery(int event);
  bool checkRecoveryFlag();
  int recovery_on_error();
  int prepare_recovery_args();
  int pushStoredArgsToZRS(std::vector<const char*>& args, std::string& program);

  SERVICE_MODE service_mode_ = RECORDING_MODE;
  std::thread thread_;
  base::atomic_bool_t thread_started_{false};
  base::event_loop loop_;
  base::timer_event* timer_ = nullptr;
  base::Mutexer stopped_mutex_;  // makes the first leave the only one
  base::atomic_bool_t joined_{false};
  base::atomic_bool_t stopped_{false};  // a leave has been started; stays set
  RecoveryModule recovery_;
  IRecordingEngineEventHandler* m_handler;
  uint32_t loopCnt_ = 0;  // timer ticks
  std::string channelId_;
  std::string m_appId;
  RecordingEngineProperties properties_;
  mapUidToFrameCnt peers_;
  // The same by uid, because each frame looks its user up and there may be a thousand of them.
  std::unordered_map<uint32_t, mediaFrameCnt*> counters_;
  RecordingConfigEx config_;
  std::vector<std::string> args_str_;  // the command line, kept for relaunches
  std::vector<const char*> args_;      // pointers into args_str_
  std::unique_ptr<base::router> router_;
  // A manually started service runs. Written on both threads.
  base::atomic_bool_t isSessionActive_{false};
  base::avsyncType avsync_type_ = base::AVSYNC_V2;

 private:
  struct free_deleter {
    void operator()(char* text) const { std::free(text); }  // NOLINT: its other half is malloc
  };
  struct command_line;

  bool in_engine_thread() const;
  void end_thread_from_inside();
  template <class Packet, class Fill>
  void send(Fill fill);
  template <class Packet, class Fill>
  void report(Fill fill);
  bool may_toggle_service() const;

  int refuse_or_warn_media(const RecordingConfig& config);
  int refuse_mixing(const RecordingConfig& config);
  int refuse_channel(const char* channelId, const RecordingConfig& config);
  int refuse_capture(const RecordingConfig& config);
  int refuse_file_settings(const RecordingConfig& config);
  int refuse_chunk_span(const RecordingConfig& config);

  void add_session_options(command_line& line, const char* channelKey, const char* channelId,
                           uid_t uid, const RecordingConfig& config);
  void add_media_options(command_line& line, const RecordingConfig& config);
  void name_channel_server(const RecordingConfig& config);
  int add_server_options(command_line& line, const RecordingConfig& config);
  void add_late_options(command_line& line, const RecordingConfig& config);
  void read_log_modules(const RecordingConfig& config);
  int publish_folder(const std::string& folder);

  template <class Frame>
  void deliver_yuv(const Frame& packet, int rotation);
  template <class Frame>
  void deliver_h264(const Frame& packet, int rotation);
  mediaFrameCnt* counters_of(uint32_t uid);

  // Where in args_str_ the options of the latest relaunch begin.
  std::optional<size_t> recovery_options_at_;
  // Id of the engine thread, while it runs.
  std::atomic<pthread_t> engine_thread_{};
  std::atomic<bool> engine_thread_runs_{false};
  // Folders of earlier joins: an application may still hold their pointers.
  std::vector<std::unique_ptr<char, free_deleter>> earlier_storage_dirs_;
};

}  // namespace zelta::recording
