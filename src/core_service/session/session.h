// SPDX-License-Identifier: Apache-2.0
// One recording, from join to the last byte: the script that ties the rooms of the recorder
// together.
//
//     channel ─▶ admission ─▶ roster (users, mix) ─▶ files
//     engine  ─▶ commands ──▶ roster, ending      ─▶ event port ─▶ engine
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/channel/channel.h"
#include "core_service/engine/engine_link.h"
#include "core_service/engine/event_port.h"
#include "core_service/files/file_writer.h"
#include "core_service/files/message_log.h"
#include "core_service/files/volume_log.h"
#include "core_service/folder/folder_share.h"
#include "core_service/folder/journal.h"
#include "core_service/folder/ledger.h"
#include "core_service/folder/manifest.h"
#include "core_service/session/admission.h"
#include "core_service/session/commands.h"
#include "core_service/session/ending.h"
#include "core_service/session/missing_report.h"
#include "core_service/session/roster.h"
#include "core_service/session/user.h"
#include "core_service/session/volumes.h"
#include "core_service/task/live_settings.h"
#include "core_service/task/options.h"
#include "core_service/task/recording_plan.h"
#include "core_service/task/settings.h"

namespace zelta::core_service {

class session final : private channel_listener {
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
  int exit_status() const { return ending_.status(); }
  // A session may be over before the loop runs, which wouldn't notice.
  bool is_over() const { return ending_.is_over(); }

 private:
  void on_channel_joined() override;
  void on_channel_failed(const std::string& why) override;
  void on_user_in(uint32_t uid, const media::open_media& open) override;
  void on_user_name(uint32_t uid, const std::string& name) override;
  void on_user_out(uint32_t uid) override;
  void on_missing(uint32_t uid, const missing_medium& what) override;
  void on_channel_interrupted() override;
  void on_channel_lost() override;

  void greet();
  // What the start is made of, in this order; false: the session is failing.
  bool prepare_folder();
  void tell_plan() const;
  bool prepare_channel(media::media_time patience);
  bool prepare_mix(media::media_time lateness);
  void recover();
  void learn_from_crash(const crash_suspect& crash);

  void let_in(uint32_t uid, std::shared_ptr<media::media_feed> from);
  bool may_decode_pictures_of(uint32_t uid);
  user::events events_of(uint32_t uid);
  void keep(uint32_t uid, const media::user_text& what);
  void on_files_failed(uint32_t uid, const std::string& why, bool fatal);
  void on_log_failed(const char* of, const std::string& name, int error);
  void close_logs();
  void report_receiving();
  load::reading read_load();
  void on_tick();
  bool is_behind(int64_t now_ms);
  void save_manifest();
  void on_not_written(const std::string& path, int error);
  void finish();
  void seal();

  const options options_;
  const recorder_settings settings_;
  const std::string server_;
  base::event_loop& loop_;
  const base::poster poster_;
  const base::logger log_;
  std::vector<std::string> warnings_;  // of the plan
  const recording_plan plan_;
  live_settings live_;

  const folder_share share_;
  state_writer writer_;
  manifest manifest_;
  ledger ledger_;
  journal journal_;
  files::file_writer disk_;
  files::message_log messages_;
  files::volume_log volume_log_;

  engine_link link_;
  event_port engine_;
  missing_report missing_;
  roster roster_;
  volumes volumes_;
  ending ending_;
  commands commands_;
  admission admission_;
  std::unique_ptr<channel> channel_;
  base::scoped_timer tick_;

  media::media_time behind_{};  // the longest since the load was read
  uint64_t lost_packets_ = 0;
  int64_t alone_since_ms_ = 0;
  int64_t saved_ms_ = 0;
  int64_t ticked_ms_ = 0;
  int64_t caught_up_ms_ = 0;
};

}  // namespace zelta::core_service
