// SPDX-License-Identifier: Apache-2.0
// One recording, from join to the last byte.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "core_service/channel/channel.h"
#include "core_service/files/file_writer.h"
#include "core_service/folder/folder_share.h"
#include "core_service/folder/journal.h"
#include "core_service/folder/manifest.h"
#include "core_service/load/overload_rules.h"
#include "core_service/load/waiting_list.h"
#include "core_service/mix/mix.h"
#include "core_service/session/engine_link.h"
#include "core_service/session/user.h"
#include "core_service/task/options.h"
#include "core_service/task/recording_plan.h"
#include "core_service/task/settings.h"

namespace zelta::core_service {

// Exit statuses of the recorder; the engine logs them.
enum exit_status : int {
  kExitDone = 0,       // left in order; also when the engine was gone
  kExitUsage = 2,      // the command line or the settings can't be used
  kExitNotJoined = 3,  // the channel could not be joined
  kExitDisk = 4,       // a file could not be written
};

class session final : private engine_listener, private channel_listener {
 public:
  // `server` names the channel server. The loop is borrowed.
  session(options given, const recorder_settings& settings, std::string server,
          base::event_loop& loop);
  session(const session&) = delete;
  session& operator=(const session&) = delete;
  ~session();

  // Joins and records; the loop is stopped when all is done.
  void start();
  // In place of start: says what keeps the recording from being started, and ends.
  void refuse(const std::vector<std::string>& errors);
  // SIGTERM or SIGINT: leaves; a second one doesn't wait for anything.
  void on_signal(int number);
  int exit_status() const { return status_; }
  // A session may be over before the loop runs, which wouldn't notice.
  bool is_over() const { return phase_ == phase::kDone; }

 private:
  enum class phase { kStarting, kRecording, kFinishing, kLingering, kDone };

  void on_leave_command() override;
  void on_log_level(uint32_t level) override;
  void on_log_modules(uint32_t modules, bool enable) override;
  void on_parameters(const std::string& text) override;
  void on_layout(const std::vector<uint8_t>& bytes) override;
  void on_start_service() override;
  void on_stop_service() override;
  void on_user_background(uint32_t uid, const std::string& path) override;
  void on_engine_gone() override;

  void on_channel_joined() override;
  void on_channel_failed(const std::string& why) override;
  void on_user_in(uint32_t uid, const std::function<user_media()>& media) override;
  void on_user_out(uint32_t uid) override;
  void on_missing(uint32_t uid, const missing_medium& what) override;
  void on_channel_interrupted() override;
  void on_channel_lost() override;

  void greet();
  void tell_not_joined();
  // What the start is made of, in this order; false: the session is failing.
  void check_options();
  bool prepare_channel(channel_place& place);
  bool prepare_mix(media::media_time lateness);
  void recover();
  void learn_from_crash(const crash_suspect& crash);
  std::string crash_note_path() const;

  // Empty when there is room for one more user.
  std::string want_of_room() const;
  void turn_away(uint32_t uid, const std::string& why, int64_t tell_ms);
  void let_in(uint32_t uid, user_media from);
  void let_go();
  void call_in();
  void tell_who_waits(int64_t now);
  void measure_load();
  void tell_left_out();
  recording_plan plan_for(uint32_t uid);
  user::events events_of(uint32_t uid);
  void on_files_failed(uint32_t uid, const std::string& why, bool fatal);
  void report_stream_status();
  void report_volumes();
  void set_volume_interval(int interval_ms);
  bool apply_layout(const std::vector<uint8_t>& bytes);
  void set_serving(bool serving, const std::string& why);
  void on_tick();
  void look_for_gaps();
  void save_manifest();
  void on_not_written(const std::string& path, int error);
  void leave(uint32_t reason, int status);
  void end_user(uint32_t uid, const std::string& why);
  void complete_when_idle();
  void linger();
  void done();
  int elapsed_ms() const;
  void log(base::log_levels level, const std::string& text) const;

  options options_;
  const recorder_settings settings_;
  const std::string server_;
  base::event_loop& loop_;
  const media::posting posting_;
  engine_link link_;
  const folder_share share_;
  state_writer writer_;
  manifest manifest_;
  journal journal_;
  recording_plan plan_;
  files::file_writer disk_;
  std::unique_ptr<mix::mix> mix_;
  bool mix_finished_ = false;
  std::unique_ptr<channel> channel_;
  std::optional<load::overload_rules> load_;
  load::waiting_list waiting_;
  std::vector<uint32_t> in_order_;  // of coming, those in users_
  int64_t measured_ms_ = 0;
  int64_t work_until_ms_ = 0;   // in this tick
  media::media_time behind_{};  // the longest since it was measured
  uint64_t lost_packets_ = 0;
  std::set<load::shed> left_out_;
  std::map<uint32_t, std::unique_ptr<user>> users_;
  // Users who have left, until their files are complete.
  std::vector<std::unique_ptr<user>> leaving_;
  base::timer_event* tick_ = nullptr;
  base::timer_event* volume_tick_ = nullptr;

  phase phase_ = phase::kStarting;
  bool serving_ = false;
  uint32_t reason_ = 0;
  int status_ = kExitDone;
  int64_t joined_ms_ = 0;
  int64_t alone_since_ms_ = 0;
  int64_t linger_until_ms_ = 0;
  int64_t saved_ms_ = 0;
  int64_t ticked_ms_ = 0;
  int64_t caught_up_ms_ = 0;
  uint32_t active_speaker_ = 0;
  bool receives_audio_ = false;
  bool receives_video_ = false;
};

}  // namespace zelta::core_service
