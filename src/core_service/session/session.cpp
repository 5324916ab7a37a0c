// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <utility>

#include "IZeltaRecordingEngine.h"
#include "base/clocks.h"
#include "core_service/load/descriptors.h"
#include "core_service/load/room_left.h"
#include "core_service/media/codecs.h"

namespace zelta::core_service {
namespace {

using namespace linuxsdk;
using namespace std::chrono_literals;

// What doesn't come has to be noticed: gaps, silence, the time to stop.
constexpr int kTickMs = 100;
// After a tick that is so late, because the machine or the process stood still, media is on its way
// that must not be taken for missing.
constexpr int64_t kStandstillMs = 500;
constexpr int64_t kCatchUpMs = 1000;
// The same of a machine that is too busy: what hasn't been read yet isn't missing.
constexpr media::media_time kLate = 300ms;
// The manifest of a running recording is this fresh.
constexpr int64_t kSaveMs = 2000;
// How long the manifest may hold up the join, which a folder that can't be written must fail, and
// the end. A recovery waits for nothing.
constexpr std::chrono::milliseconds kFirstWriteLimit = 500ms;
constexpr std::chrono::milliseconds kLastWriteLimit = 2s;
// A call's missing packets are worth less of a wait than a broadcast's: nobody waits for an answer
// in a recording, but its mix is held back by as much.
constexpr media::media_time kCallJitter = 400ms;
constexpr media::media_time kLiveJitter = 1s;

// What follows is why, for whoever reads the log.
constexpr const char* kCannotJoin = "can't join: ";
constexpr const char* kMessages = "messages";
constexpr const char* kVolumes = "volumes";
constexpr const char* kCrashed =
    "a recorder crashed over it; to the end of the session it isn't tried again";

uint32_t choose_uid(unsigned given) {
  if (given != 0) return given;
  std::random_device random;
  return std::uniform_int_distribution<uint32_t>(1, 0x7FFFFFFF)(random);
}

recording_plan make_plan(const options& given, const recorder_settings& settings,
                         std::vector<std::string>& warnings) {
  recording_plan made = plan_of(given, warnings);
  made.keep_opus = settings.sound == 0;
  return made;
}

int64_t ms_of(media::media_time time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

std::string crash_note_of(const journal& kept) {
  return kept.path() + ".crash";
}

dropped_counts counts_of(const engine_link::dropped_frames& dropped) {
  return {dropped.pictures, dropped.coded, dropped.sound};
}

}  // namespace

session::session(options given, const recorder_settings& settings, std::string server,
                 base::event_loop& loop)
    : options_(std::move(given)),
      settings_(settings),
      server_(std::move(server)),
      loop_(loop),
      poster_(loop),
      log_(options_.recording_file_dir, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER),
      plan_(make_plan(options_, settings_, warnings_)),
      live_(options_),
      share_(options_.recording_file_dir,
             folder_share::session_name(options_.uid, options_.channel_id),
             options_.recovery_id > 0, folder_share::first_of_environment()),
      writer_([this](const std::string& path, int error) {
        poster_.post([this, path, error] { on_not_written(path, error); });
      }),
      manifest_(share_.folder(), share_.manifest_name(), options_.channel_id, writer_),
      journal_(share_.folder() + share_.journal_name(), share_.session(), writer_),
      disk_(loop_),
      messages_(share_.folder() + share_.messages_name(), options_.channel_id, loop_, disk_,
                [this](int error) { on_log_failed(kMessages, share_.messages_name(), error); }),
      volume_log_(share_.folder() + share_.volumes_name(), options_.channel_id, loop_, disk_,
                  [this](int error) { on_log_failed(kVolumes, share_.volumes_name(), error); }),
      link_(options_.read_fd, options_.write_fd, loop,
            base::logger(options_.recording_file_dir, base::ZELTA_LOG_MODULE_IPC)),
      engine_(link_),
      missing_(manifest_, engine_, log_),
      roster_({[this](uint32_t uid, const files::recording_end& why) {
                 log_.notice("user " + std::to_string(uid) + " out: " + files::text_of(why));
                 // From here on, and not from the next tick, which a standstill may hold up.
                 alone_since_ms_ = base::tick_ms();
                 engine_.user_out(uid);
                 report_receiving();
               },
               [this] {
                 close_logs();
                 ending_.check();
               }}),
      volumes_(static_cast<volumes::keep>(settings_.volumes), volume_log_, loop, roster_, engine_,
               [this](const std::string& why) {
                 missing_.tell(0, {kVolumes, "", why});
               }),
      ending_(loop, link_, engine_, log_,
              {[this] { finish(); },
               [this] {
                 return roster_.is_complete() && !messages_.is_open() && !volume_log_.is_open();
               },
               [this] { seal(); }}),
      commands_(plan_, options_.trigger_mode == MANUALLY_MODE, live_, roster_, journal_, ending_,
                log_, {[this] { volumes_.report_every(live_.volume_interval_ms); }}),
      admission_(settings_.most_users, plan_, roster_, missing_, log_,
                 {[this](uint32_t uid, auto from) { let_in(uid, std::move(from)); },
                  [this](uint32_t uid) { return channel_->offer_again(uid); },
                  [this] { return read_load(); }}) {}

session::~session() = default;

// ---- The start -----------------------------------------------------------------------------

void session::greet() {
  link_.listen(commands_);
  engine_.hello();
  tick_ = {loop_, kTickMs, [this] { on_tick(); }};
  alone_since_ms_ = ticked_ms_ = base::tick_ms();
}

void session::start() {
  greet();
  ledger_.add(manifest_);
  // Laid once on the wall clock, here.
  static_cast<void>(media::utc_ms_of(media::now()));
  const bool recovery = options_.recovery_id > 0;
  const auto crash = take_crash_note(crash_note_of(journal_));
  watch_crashes(crash_note_of(journal_));
  if (!prepare_folder()) return;
  tell_plan();
  const media::media_time patience = options_.live ? kLiveJitter : kCallJitter;
  if (!prepare_channel(patience) || !prepare_mix(patience)) return;
  if (recovery) recover();
  if (recovery && crash) learn_from_crash(*crash);
  volumes_.report_every(live_.volume_interval_ms);
  if (options_.trigger_mode == AUTOMATICALLY_MODE || journal_.state.serving) {
    roster_.start_service();
  }
  log_.notice("joining channel " + options_.channel_id + " at " + server_);
  channel_->join();
}

// What a predecessor left in the folder stays as it is.
void session::refuse(const std::vector<std::string>& errors) {
  greet();
  for (const std::string& error : errors) log_.error(kCannotJoin + error);
  engine_.not_joined();
  ending_.refuse(kExitUsage);
}

bool session::prepare_folder() {
  const bool recovery = options_.recovery_id > 0;
  if (recovery) {
    manifest_.adopt_leftovers();
  } else {
    // In place of what a former session may have left.
    journal_.save();
  }
  ledger_.session_began(recovery);
  manifest_.save();
  const int failed = recovery ? 0 : writer_.flush(kFirstWriteLimit);
  if (failed == 0 || failed == ETIMEDOUT) return true;
  on_channel_failed("the recording folder " + options_.recording_file_dir +
                    " can't be written: " + std::strerror(failed));
  return false;
}

void session::tell_plan() const {
  for (const std::string& text : warnings_) log_.warn(text);
  std::string unknown;
  for (const std::string& name : options_.unknown) unknown += " " + name;
  if (!unknown.empty()) log_.warn("options that nobody knows:" + unknown);
  for (const std::string& text : media::missing_plugins()) log_.warn(text);
  // No backend that there is takes a proxy.
  log_.notice("stream type " + std::to_string(options_.stream_type) + ", language " +
              std::to_string(options_.lang) + ", proxy \"" + options_.proxy_server +
              "\", service mode " + std::to_string(options_.service_mode) + ", media server \"" +
              options_.vos + "\":" + std::to_string(options_.vos_port));
}

bool session::prepare_channel(media::media_time patience) {
  // One bound of each would make a range that nobody has asked for.
  const bool bounded = options_.min_port > 0 || options_.max_port > 0;
  std::string error;
  channel_ = make_channel({server_,
                           options_.channel_id,
                           options_.channel_key,
                           options_.encrypt_mode,
                           options_.encrypt_secret,
                           patience,
                           bounded ? options_.min_port : settings_.first_port,
                           bounded ? options_.max_port : settings_.last_port,
                           options_.av_sync_type != 0,
                           options_.stream_type != 0,
                           {settings_.whip_token, settings_.whip_certificate, settings_.whip_key,
                            settings_.whip_address},
                           {settings_.janus_api_secret},
                           log_},
                          loop_, *this, error);
  if (!channel_) on_channel_failed(error);
  return channel_ != nullptr;
}

bool session::prepare_mix(media::media_time lateness) {
  if (!plan_.mix_sound && !plan_.mix_video) return true;
  std::string error;
  roster_.set_mix(
      mix::mix::make(plan_, lateness, {options_.default_video_bg, options_.default_user_bg},
                     {options_.recording_file_dir, loop_, ledger_, disk_, log_}, link_,
                     {[this](const std::string& why, bool disk) { on_files_failed(0, why, disk); },
                      [this] { roster_.note_mix_finished(); }},
                     error));
  if (roster_.mix() == nullptr) on_channel_failed(error);
  return roster_.mix() != nullptr;
}

// Goes on where the process before this one was stopped.
void session::recover() {
  std::string error;
  if (!journal_.load(error)) {
    journal_.save();
    return log_.warn("recovery without a journal: " + error);
  }
  commands_.recover();
  admission_.take_over();
  log_.notice("recovery " + std::to_string(options_.recovery_id) + " goes on " +
              std::to_string(base::tick_ms() - options_.recovery_time) +
              " ms after it was called for");
}

// Before anybody joins.
void session::learn_from_crash(const crash_suspect& crash) {
  const auto before = journal_.state.left_out;
  journal_.state.blame(crash);
  journal_.save();
  const bool more = journal_.state.left_out != before;
  log_.warn("the recorder before this one crashed" +
            (crash.uid != 0 ? " over user " + std::to_string(crash.uid) : "") +
            (more ? "; its media is left out" : "; nobody's media is left out yet"));
}

// ---- The channel ---------------------------------------------------------------------------

void session::on_channel_joined() {
  ending_.note_joined();
  // How long the start took says nothing of the load.
  alone_since_ms_ = ticked_ms_ = base::tick_ms();
  admission_.open();
  volumes_.begin();
  engine_.joined(choose_uid(options_.uid), options_.channel_id);
}

void session::on_channel_failed(const std::string& why) {
  log_.error(kCannotJoin + why);
  engine_.not_joined();
  ending_.leave(LEAVE_CODE_INIT, kExitNotJoined);
}

void session::on_user_in(uint32_t uid, const media::open_media& open) {
  if (!ending_.records() || roster_.has(uid)) return;
  if (journal_.state.left_out_of(uid) == crash_stage::kReceiving) {
    return missing_.tell(uid, {"all", "", kCrashed});
  }
  admission_.offered(uid, open);
}

void session::let_in(uint32_t uid, std::shared_ptr<media::media_feed> from) {
  log_.notice("user " + std::to_string(uid) + " joined");
  auto made = std::make_unique<user>(
      uid, std::move(from), plan_, may_decode_pictures_of(uid),
      files::destination{options_.recording_file_dir, loop_, ledger_, disk_,
                         log_.with("user " + std::to_string(uid))},
      link_, roster_.mix() != nullptr ? roster_.mix()->add_user(uid) : nullptr, events_of(uid));
  volumes_.measure(*made);
  made->set_still_interval(live_.capture_interval_s);
  admission_.leave_out_of(*made);
  engine_.user_in(uid, options_.recording_file_dir);
  roster_.add(uid, std::move(made)).start();
}

// Not of one over whose pictures a recorder crashed; told once.
bool session::may_decode_pictures_of(uint32_t uid) {
  if (journal_.state.left_out_of(uid) == crash_stage::kUnknown) return true;
  const bool asked_for = plan_.mix_video || plan_.video_out == video_frames::kYuv ||
                         plan_.jpg_packets || plan_.jpg_files;
  if (asked_for) missing_.tell(uid, {"decoded video", "", kCrashed});
  return false;
}

user::events session::events_of(uint32_t uid) {
  user::events told;
  told.first_video = [this, uid](int width, int height) {
    engine_.first_video(uid, width, height);
    report_receiving();
  };
  told.first_sound = [this, uid] {
    engine_.first_sound(uid);
    report_receiving();
  };
  told.failed = [this, uid](const std::string& why, bool disk) { on_files_failed(uid, why, disk); };
  told.text = [this, uid](const media::user_text& what) { keep(uid, what); };
  told.missing = [this, uid](const missing_medium& what) { missing_.tell(uid, what); };
  told.over = [this, uid](const std::string& medium) { missing_.over(uid, medium); };
  told.ended = [this, uid](const files::recording_end& why) { roster_.end(uid, why); };
  return told;
}

void session::keep(uint32_t uid, const media::user_text& what) {
  if (messages_.add(uid, what)) return manifest_.count_message(uid);
  missing_.tell(uid, {kMessages, "", "the disk is too slow for them"});
}

void session::on_user_name(uint32_t uid, const std::string& name) {
  log_.notice("user " + std::to_string(uid) + " is called \"" + name + "\"");
  manifest_.set_name(uid, name);
}

void session::on_user_out(uint32_t uid) {
  if (admission_.gone(uid)) alone_since_ms_ = base::tick_ms();
  roster_.end(uid, files::end_reason::kUserLeft);
}

void session::on_missing(uint32_t uid, const missing_medium& what) {
  missing_.tell(uid, what);
}

void session::on_channel_interrupted() {
  engine_.interrupted();
}

void session::on_channel_lost() {
  log_.error("the channel is lost");
  engine_.channel_lost();
  ending_.leave(LEAVE_CODE_TIMER_CATCH, kExitDone);
}

// ---- Reports -------------------------------------------------------------------------------

void session::report_receiving() {
  engine_.receiving(roster_.receives(media::media_kind::kAudio),
                    roster_.receives(media::media_kind::kVideo));
}

// ---- What fails ----------------------------------------------------------------------------

// From inside a file's own call, so the end comes later.
void session::on_files_failed(uint32_t uid, const std::string& why, bool fatal) {
  if (!fatal) return missing_.tell(uid, {uid == 0 ? "mix" : "all", "", why});
  log_.error("recording failed: " + why);
  poster_.post([this] {
    roster_.abandon_files();
    if (!ending_.records()) return;
    engine_.failed();
    ending_.leave(LEAVE_CODE_TIMER_CATCH, kExitDisk);
  });
}

void session::on_log_failed(const char* of, const std::string& name, int error) {
  // Media that can still be written is.
  missing_.tell(0, {of, "", name + " can't be written: " + std::strerror(error)});
}

// Once nobody is here any more who could write.
void session::close_logs() {
  if (!ending_.has_begun() || !roster_.is_complete()) return;
  messages_.close([this] { ending_.check(); });
  volume_log_.close([this] { ending_.check(); });
}

// A folder that was removed takes no file any more, though those that are open don't notice.
void session::on_not_written(const std::string& path, int error) {
  const bool journal_lost = path == journal_.path();
  log_.error("can't write " + path + ": " + std::strerror(error) +
             (journal_lost ? "; a recovery would forget" : ""));
  if (journal_lost || is_shortage(error) || !ending_.records()) return;
  on_files_failed(0, "the recording folder can't be written", true);
}

// ---- The ticks -----------------------------------------------------------------------------

void session::on_tick() {
  const int64_t now = base::tick_ms();
  admission_.begin_tick(now);
  if (!is_behind(now)) roster_.tick();
  manifest_.save_changes();
  if (!ending_.records()) return;
  admission_.tick(now);
  if (roster_.size() > 0 || admission_.anybody_waits()) alone_since_ms_ = now;
  if (now - saved_ms_ >= kSaveMs && roster_.size() > 0) save_manifest();
  if (now - alone_since_ms_ < int64_t{live_.idle_s} * 1000) return;
  log_.notice("nobody here for " + std::to_string(live_.idle_s) + " s");
  ending_.leave(LEAVE_CODE_NO_USERS, kExitDone);
}

// Whether media may be on its way that has not been seen yet.
bool session::is_behind(int64_t now_ms) {
  const int64_t since_tick_ms = now_ms - std::exchange(ticked_ms_, now_ms);
  if (since_tick_ms > kStandstillMs) {
    log_.notice("stood still for " + std::to_string(since_tick_ms) + " ms");
    caught_up_ms_ = now_ms + kCatchUpMs;
  }
  const media::media_time late = std::chrono::milliseconds(since_tick_ms - kTickMs);
  const media::media_time behind = std::max(channel_ ? channel_->take_behind() : late, late);
  behind_ = std::max(behind_, behind);
  if (behind > kLate) caught_up_ms_ = now_ms + kCatchUpMs;
  return now_ms < caught_up_ms_;
}

load::reading session::read_load() {
  roster_.count_losses();
  load::reading now;
  now.behind = std::exchange(behind_, {});
  now.disk_behind = disk_.take_behind();
  manifest_.set_lag({ms_of(now.behind), ms_of(now.disk_behind)});
  const uint64_t lost = manifest_.all_lost_packets();
  now.lost = std::exchange(lost_packets_, lost) < lost;
  // Whose they were nobody knows.
  const uint64_t dropped = channel_ ? channel_->take_dropped() : 0;
  if (dropped > 0) {
    now.lost = true;
    log_.warn(std::to_string(dropped) +
              " packets found no room here, and are asked for again where senders have them: the "
              "machine is too busy, or gives sockets too little memory (net.core.rmem_max)");
  }
  now.free_bytes = load::free_bytes();
  return now;
}

void session::save_manifest() {
  saved_ms_ = base::tick_ms();
  roster_.tell_progress();
  manifest_.set_dropped(counts_of(link_.dropped()));
  manifest_.save();
}

// ---- The end -------------------------------------------------------------------------------

void session::on_signal(int number) {
  log_.notice("signal " + std::to_string(number));
  ending_.on_signal();
}

void session::finish() {
  admission_.close();
  volumes_.stop();
  if (channel_) channel_->leave();
  // The mix first: it still has to mix what its users have sent by now.
  roster_.finish_mix(files::end_reason::kRecordingEnded);
  roster_.end_all(files::end_reason::kRecordingEnded);
  close_logs();
}

void session::seal() {
  const dropped_counts dropped = counts_of(link_.dropped());
  manifest_.set_dropped(dropped);
  ledger_.session_ended(ending_.reason());
  manifest_.save();
  if (writer_.flush(kLastWriteLimit) == ETIMEDOUT) {
    log_.warn("the disk is too slow for a last " + manifest_.name());
  } else {
    journal_.remove();
  }
  if (dropped.pictures + dropped.coded + dropped.sound == 0) return;
  log_.warn("frames were dropped, because the engine was too slow: " +
            std::to_string(dropped.pictures) + " pictures, " + std::to_string(dropped.coded) +
            " coded, " + std::to_string(dropped.sound) + " of sound");
}

}  // namespace zelta::core_service
