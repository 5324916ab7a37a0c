// SPDX-License-Identifier: Apache-2.0
#include "recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include <poll.h>

#include "base/boot_clock.h"
#include "chunk_file.h"
#include "commands.h"
#include "core_service/task/settings.h"
#include "layout_file.h"
#include "log_reason.h"
#include "outcome.h"
#include "page_address.h"
#include "printer.h"
#include "progress.h"
#include "recording_metrics.h"
#include "reporter.h"

namespace zelta::record {
namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;
using lease_clock = base::boot_clock;

constexpr milliseconds kProgress(1000);
constexpr int kSecondsOfProgress = 5;
constexpr auto kDefaultLevel = recording::ZELTA_LOG_LEVEL_NOTICE;

struct release_engine {
  void operator()(recording::IRecordingEngine* engine) const { engine->release(); }
};
using engine_ptr = std::unique_ptr<recording::IRecordingEngine, release_engine>;

int64_t utc_now_ms() {
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t ceil_ms(std::chrono::nanoseconds of) {
  return std::chrono::ceil<milliseconds>(of).count();
}

class recording_run {
 public:
  recording_run(options& o, signal_watch& signals)
      : o_(o),
        signals_(signals),
        out_(o.json),
        report_(out_, o.frames_dir.empty() ? nullptr : std::make_unique<frame_files>(o.frames_dir)),
        commands_(o.commands),
        place_{"", o.channel_id, utc_now_ms(), {}} {}

  exit_status run();

 private:
  bool prepare(std::string& fault);
  exit_status join();
  exit_status refused(int code, const std::string& why);
  void record_until_end();
  void tell_page();
  void take_signal();
  void take_commands();
  void renew_lease(double seconds);
  bool is_lease_over();
  void tell_progress();
  void show_progress();

  options& o_;
  signal_watch& signals_;
  printer out_;
  reporter report_;
  command_lines commands_;
  std::optional<layout_file> layout_;
  std::unique_ptr<chunk_file> chunk_;
  engine_ptr engine_;
  std::optional<command_scope> scope_;
  lease_clock::time_point lease_until_ = lease_clock::time_point::max();
  recording_place place_;
  std::shared_ptr<recording_metrics> metrics_;
  std::unique_ptr<metrics::metrics_server> metrics_server_;
  int seconds_ = 0;
  // At the last progress line, for rates.
  double shown_s_ = 0;
  uint64_t shown_frames_ = 0;
};

exit_status recording_run::run() {
  std::string fault;
  if (!prepare(fault)) {
    complain(fault);
    return kUsage;
  }
  const exit_status joined = join();
  if (joined != kRecorded) return joined;
  record_until_end();
  signals_.end_at_the_next();
  engine_->leaveChannel();
  engine_.reset();
  return tell_outcome(place_, report_, scope_->started, out_);
}

bool recording_run::prepare(std::string& fault) {
  if (!o_.layout_path.empty()) {
    layout_ = layout_file::read(o_.layout_path, fault);
    if (!layout_) return fault = "--layout " + fault, false;
  }
  if (o_.chunk_s > 0) {
    chunk_ = std::make_unique<chunk_file>(o_.cfg_file_path, o_.chunk_s, fault);
    if (*chunk_->path() == '\0') return false;
    o_.config.cfgFilePath = chunk_->path();
  }
  if (!o_.metrics_address.empty()) {
    metrics_server_ = metrics::metrics_server::make(o_.metrics_address, fault);
    if (!metrics_server_) return fault = "--metrics: " + fault, false;
    metrics_ = std::make_shared<recording_metrics>(report_);
    metrics_server_->add(metrics_);
  }
  if (!o_.server.empty()) setenv("ZELTA_CHANNEL_SERVER", o_.server.c_str(), 1);
  if (!o_.settings_path.empty()) {
    setenv(core_service::kSettingsVariable, o_.settings_path.c_str(), 1);
  }
  return true;
}

exit_status recording_run::join() {
  engine_.reset(
      recording::IRecordingEngine::createZeltaRecordingEngine(o_.app_id.c_str(), &report_));
  if (!engine_) return refused(0, "no engine could be made; --app-id may not be empty");
  const auto level =
      o_.log_level != 0 ? static_cast<recording::zelta_log_level>(o_.log_level) : kDefaultLevel;
  // The engine logs the recorder's command line, with everything in it, as a notice.
  const auto quiet = o_.has_secrets() ? std::min(level, recording::ZELTA_LOG_LEVEL_WARN) : level;
  if (quiet != kDefaultLevel) engine_->setLogLevel(quiet);
  // A folder that is made for the recording has nothing in it.
  if (!o_.fixed_folder.empty()) place_.earlier = read_recorded(o_.fixed_folder, o_.channel_id);
  const int code =
      engine_->joinChannel(o_.channel_key.c_str(), o_.channel_id.c_str(), o_.uid, o_.config);
  chunk_.reset();
  const char* const folder = engine_->getProperties()->storageDir;
  if (folder != nullptr) place_.folder = folder;
  if (metrics_) metrics_->begin(place_);
  if (code != 0) return refused(code, "");
  if (quiet != level) engine_->setLogLevel(level);
  scope_.emplace(command_scope{
      *engine_, o_.config.triggerMode == recording::MANUALLY_MODE,
      o_.config.isMixingEnabled && !o_.config.isAudioOnly,
      o_.has_secrets() ? kHighestLevelWithSecrets : int{recording::ZELTA_LOG_LEVEL_DEBUG},
      o_.lease_s > 0});
  scope_->started = !scope_->manual;
  // Without commands nobody else could start it.
  if (scope_->manual && !o_.commands) {
    engine_->startService();
    scope_->started = true;
  }
  if (layout_) engine_->setVideoMixingLayout(layout_->layout());
  return kRecorded;
}

exit_status recording_run::refused(int code, const std::string& why) {
  const std::string folder = place_.folder;
  engine_.reset();
  std::string reason = why;
  if (reason.empty() && !folder.empty()) reason = logged_reason(folder, place_.since_utc_ms);
  if (reason.empty()) reason = "the reason is in the line above";
  reason = "the engine refused to join (" + std::to_string(code) + "): " + reason;
  if (out_.is_json()) out_.event("end", {{"status", int{kRefused}}, {"reason", reason}});
  complain(reason);
  return kRefused;
}

// Until the session is over, its time is up, or somebody asks for the end.
void recording_run::record_until_end() {
  auto end = clock::time_point::max();
  auto next_line = clock::now() + kProgress;
  if (o_.lease_s > 0) renew_lease(o_.lease_s);
  auto before = reporter::state::kJoining;
  while (clock::now() < end && !scope_->leave) {
    if (is_lease_over()) return;
    const auto left = std::min(ceil_ms(std::min(next_line, end) - clock::now()),
                               ceil_ms(lease_until_ - lease_clock::now()));
    std::array<pollfd, 3> fds{pollfd{report_.changes(), POLLIN, 0},
                              pollfd{signals_.fd(), POLLIN, 0}, pollfd{commands_.fd(), POLLIN, 0}};
    poll(fds.data(), fds.size(), static_cast<int>(std::max<int64_t>(left, 0)));
    report_.drain();
    take_signal();
    if (fds[2].revents != 0) take_commands();
    const auto state = report_.now().state;
    if (state == reporter::state::kOver) return;
    if (state != before) tell_page();
    if (state != before && o_.duration_s > 0) {
      end = clock::now() + milliseconds(static_cast<int64_t>(o_.duration_s * 1000));
    }
    before = state;
    if (clock::now() < next_line) continue;
    show_progress();
    tell_progress();
    next_line = clock::now() + kProgress;
  }
}

// Its own server, which may stand in the configuration file, comes before the process's.
void recording_run::tell_page() {
  const char* const named = std::getenv("ZELTA_CHANNEL_SERVER");
  const std::string server = !o_.configured_server.empty() ? o_.configured_server
                             : named != nullptr            ? named
                                                           : "";
  const auto settings = core_service::load_settings_of_environment().values;
  const std::string url = page_address(server, o_.channel_id, !settings.whip_certificate.empty());
  if (!url.empty()) out_.event("page", {{"url", url}});
}

void recording_run::take_signal() {
  const int number = signals_.take();
  if (number == 0) return;
  out_.event("leaving", {{"signal", std::string("SIG") + sigabbrev_np(number)}});
  report_.stop();
}

void recording_run::renew_lease(double seconds) {
  lease_until_ = lease_clock::now() + milliseconds(static_cast<int64_t>(seconds * 1000));
}

// Whoever gave it has died, hangs, or isn't to record this any more: somebody else may do so by
// now. Until then it goes on, also when nobody is there to give it more: what it records is all
// that there is.
bool recording_run::is_lease_over() {
  if (o_.lease_s <= 0 || lease_clock::now() < lease_until_) return false;
  out_.event("lease over", {});
  return true;
}

void recording_run::take_commands() {
  for (const std::string& line : commands_.take()) {
    const std::string fault = run_command(line, *scope_);
    if (scope_->renewed_s) {
      renew_lease(*std::exchange(scope_->renewed_s, std::nullopt));
      continue;
    }
    out_.event("command", {{"line", line}, {"result", fault.empty() ? "done" : fault}});
    if (scope_->leave) return;
  }
}

// For whoever keeps it on a lease, and tells others how it does.
void recording_run::tell_progress() {
  if (!o_.json || o_.lease_s <= 0 || ++seconds_ % kSecondsOfProgress != 0) return;
  const recorded all = read_recorded(place_);
  const reporter::facts facts = report_.now();
  out_.event("progress",
             {{"users", facts.users},
              {"files", Json::UInt64{all.files.size()}},
              {"bytes", Json::UInt64{all.bytes()}},
              {"missing", Json::UInt64{all.missing.size()}},
              {"restarts", facts.restarts},
              {"lag_ms", Json::Int64{std::max(all.lag_of_packets_ms, all.lag_of_disk_ms)}}});
}

void recording_run::show_progress() {
  if (!out_.is_terminal()) return;
  const reporter::facts facts = report_.now();
  const recorded all = read_recorded(place_);
  const double now = out_.elapsed_s();
  progress p{};
  p.elapsed_s = now;
  p.users = facts.users;
  p.recorded_s = static_cast<double>(all.duration_ms()) / 1000;
  p.bytes = all.bytes();
  p.files = all.files.size();
  p.losses = std::max<uint64_t>(all.missing.size(), static_cast<uint64_t>(facts.user_errors)) +
             static_cast<uint64_t>(facts.restarts) + all.dropped.all();
  p.delivers = facts.frames > 0;
  p.frames_per_s = static_cast<double>(facts.frames - shown_frames_) / (now - shown_s_);
  shown_s_ = now;
  shown_frames_ = facts.frames;
  // The last column is left free: a cursor behind it would be on the next line.
  out_.redraw(progress_line(p, terminal_columns() - 1));
}

}  // namespace

exit_status record(options& o, signal_watch& signals) {
  return recording_run(o, signals).run();
}

}  // namespace zelta::record
