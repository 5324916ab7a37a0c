// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/session.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <utility>

#include "IZeltaRecordingEngine.h"
#include "base/clocks.h"
#include "core_service/load/descriptors.h"
#include "core_service/load/room_left.h"
#include "core_service/media/codecs.h"
#include "core_service/task/parameters.h"

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
// Coming and going of many at once leaves room for the engine's commands in between.
constexpr int64_t kUserWorkMs = 200;
// The manifest of a running recording is this fresh.
constexpr int64_t kSaveMs = 2000;
// A recorder that left by itself waits so long for the engine to hang up: an application that
// leaves when it is told so never sees the link break.
constexpr int64_t kLingerMs = 5000;
constexpr std::chrono::milliseconds kFlushLimit = 1s;
// How long the manifest may hold up the join, which a folder that can't be written must fail, and
// the end. A recovery waits for nothing.
constexpr std::chrono::milliseconds kFirstWriteLimit = 500ms;
constexpr std::chrono::milliseconds kLastWriteLimit = 2s;
// Below it, nobody speaks.
constexpr uint32_t kSpeakingVolume = 10;
// Two who are as loud as each other don't take turns.
constexpr uint32_t kSpeakerLead = 8;
// A call's missing packets are worth less of a wait than a broadcast's: nobody waits for an answer
// in a recording, but its mix is held back by as much.
constexpr media::media_time kCallJitter = 400ms;
constexpr media::media_time kLiveJitter = 1s;

uint32_t choose_uid(unsigned given) {
  if (given != 0) return given;
  std::random_device random;
  return std::uniform_int_distribution<uint32_t>(1, 0x7FFFFFFF)(random);
}

template <class Packet, class... Values>
Packet make(Values&&... values) {
  Packet packet;
  Packet::fields(packet) = std::make_tuple(std::forward<Values>(values)...);
  return packet;
}

// What follows is why, for whoever reads the log.
constexpr const char* kCannotJoin = "can't join: ";

// The load is measured so often.
constexpr int64_t kMeasureMs = 1000;
// Whoever comes with many others is let in with the next of them, and hears of it only if that
// takes so long.
constexpr int64_t kTellBusyMs = 10'000;
constexpr const char* kTooBusy =
    "turned away, because the machine is too busy for more; taken up when there is room";
constexpr const char* kLetGo =
    "let go, because the machine is too busy for all; taken up again when there is room";

std::vector<load::shed> things_to_leave_out(const recording_plan& plan) {
  std::vector<load::shed> made;
  if (plan.jpg_packets || plan.jpg_files) made.push_back(load::shed::kStills);
  if (plan.mix_video) made.push_back(load::shed::kMixPictures);
  if (plan.video_out == video_frames::kYuv) made.push_back(load::shed::kApplicationPictures);
  return made;
}

missing_medium missing_of(load::shed what) {
  const char* const reason = "left out for a while, because the machine was too busy";
  switch (what) {
    case load::shed::kStills:
      return {"captured pictures", "", reason};
    case load::shed::kMixPictures:
      return {"every second picture of the mix", "", reason};
    case load::shed::kApplicationPictures:
      break;
  }
  return {"pictures for the application", "", reason};
}

constexpr const char* kCrashed =
    "a recorder crashed over it; to the end of the session it isn't tried again";

}  // namespace

session::session(options given, const recorder_settings& settings, std::string server,
                 base::event_loop& loop)
    : options_(std::move(given)),
      settings_(settings),
      server_(std::move(server)),
      loop_(loop),
      posting_(loop),
      link_(options_.read_fd, options_.write_fd, loop, *this, options_.recording_file_dir),
      share_(options_.recording_file_dir,
             folder_share::session_name(options_.uid, options_.channel_id),
             options_.recovery_id > 0),
      writer_([this](const std::string& path, int error) {
        posting_.post([this, path, error] { on_not_written(path, error); });
      }),
      manifest_(share_.folder(), share_.manifest_name(), options_.channel_id, writer_),
      journal_(share_.folder() + share_.journal_name(), share_.session(), writer_),
      disk_(loop_) {}

session::~session() {
  if (tick_ != nullptr) loop_.remove_timer(tick_);
  if (volume_tick_ != nullptr) loop_.remove_timer(volume_tick_);
}

// ---- The start -----------------------------------------------------------------------------

void session::greet() {
  link_.send(make<protocol::hello_packet>(protocol::kProtocolVersion,
                                          std::string("ZeltaCoreService " ZELTA_REVISION)));
  tick_ = loop_.add_timer(
      kTickMs, [](int, void* self) { static_cast<session*>(self)->on_tick(); }, this);
  alone_since_ms_ = ticked_ms_ = base::tick_ms();
}

void session::start() {
  greet();
  // Laid once on the wall clock, here.
  static_cast<void>(media::utc_ms_of(media::now()));
  const bool recovery = options_.recovery_id > 0;
  const auto crash = take_crash_note(crash_note_path());
  watch_crashes(crash_note_path());
  if (recovery) {
    manifest_.adopt_leftovers();
  } else {
    // In place of what a former session may have left.
    journal_.save();
  }
  manifest_.save();
  const int failed = recovery ? 0 : writer_.flush(kFirstWriteLimit);
  if (failed != 0 && failed != ETIMEDOUT) {
    return on_channel_failed("the recording folder " + options_.recording_file_dir +
                             " can't be written: " + std::strerror(failed));
  }
  channel_place place;
  check_options();
  load_.emplace(things_to_leave_out(plan_), std::thread::hardware_concurrency());
  if (!prepare_channel(place) || !prepare_mix(place.rtp.jitter_latency)) return;
  if (recovery) recover();
  if (recovery && crash) learn_from_crash(*crash);
  set_volume_interval(options_.audio_indication_interval);
  serving_ = options_.trigger_mode == AUTOMATICALLY_MODE || journal_.state.serving;
  log(base::NOTICE_LOG, "joining channel " + options_.channel_id + " at " + server_);
  channel_->join();
}

// Without the steps of an end: what a predecessor left in the folder stays as it is.
void session::refuse(const std::vector<std::string>& errors) {
  greet();
  for (const std::string& error : errors) log(base::ERROR_LOG, kCannotJoin + error);
  tell_not_joined();
  status_ = kExitUsage;
  linger();
}

void session::check_options() {
  std::vector<std::string> warnings;
  plan_ = plan_of(options_, warnings);
  plan_.keep_opus = settings_.sound == 0;
  std::string unknown;
  for (const std::string& name : options_.unknown) unknown += " " + name;
  if (!unknown.empty()) warnings.push_back("options that nobody knows:" + unknown);
  for (const std::string& text : media::missing_plugins()) warnings.push_back(text);
  for (const std::string& text : warnings) log(base::WARN_LOG, text);
  // The backends that there are send one stream a user, without a proxy.
  log(base::NOTICE_LOG, "stream type " + std::to_string(options_.stream_type) + ", language " +
                            std::to_string(options_.lang) + ", proxy \"" + options_.proxy_server +
                            "\", service mode " + std::to_string(options_.service_mode) +
                            ", media server \"" + options_.vos +
                            "\":" + std::to_string(options_.vos_port));
}

bool session::prepare_channel(channel_place& place) {
  place.server = server_;
  place.channel_id = options_.channel_id;
  place.logdir = options_.recording_file_dir;
  place.rtp.jitter_latency = options_.live ? kLiveJitter : kCallJitter;
  // One bound of each would make a range that nobody has asked for.
  const bool bounded = options_.min_port > 0 || options_.max_port > 0;
  place.rtp.min_port = bounded ? options_.min_port : settings_.first_port;
  place.rtp.max_port = bounded ? options_.max_port : settings_.last_port;
  place.rtp.use_sender_reports = options_.av_sync_type != 0;
  std::string error;
  const bool encrypted = !options_.encrypt_mode.empty() || !options_.encrypt_secret.empty();
  if (encrypted) {
    place.rtp.key = rtp::parse_key(options_.encrypt_mode, options_.encrypt_secret, error);
    if (!place.rtp.key) {
      on_channel_failed(error);
      return false;
    }
  }
  channel_ = make_channel(place, loop_, *this, error);
  if (!channel_) on_channel_failed(error);
  return channel_ != nullptr;
}

bool session::prepare_mix(media::media_time lateness) {
  if (!plan_.mix_sound && !plan_.mix_video) return true;
  std::string error;
  mix_ =
      mix::mix::make(plan_, lateness, {options_.default_video_bg, options_.default_user_bg},
                     {options_.recording_file_dir, loop_, manifest_, link_, disk_},
                     {[this](const std::string& why, bool disk) { on_files_failed(0, why, disk); },
                      [this] {
                        mix_finished_ = true;
                        complete_when_idle();
                      }},
                     error);
  if (!mix_) on_channel_failed(error);
  return mix_ != nullptr;
}

// Goes on where the process before this one was stopped.
void session::recover() {
  std::string error;
  if (!journal_.load(error)) {
    journal_.save();
    return log(base::WARN_LOG, "recovery without a journal: " + error);
  }
  const journal_state& state = journal_.state;
  if (state.log_level != 0) on_log_level(state.log_level);
  if (state.log_modules >= 0) {
    base::log_config::set_enabled_modules(static_cast<uint32_t>(state.log_modules));
  }
  if (!state.layout.empty()) apply_layout(state.layout);
  // What the recorder before left out is made again by this one.
  for (const load::shed what : things_to_leave_out(plan_)) {
    manifest_.end_missing(0, missing_of(what).medium);
  }
  for (const auto& [uid, path] : state.user_backgrounds) {
    if (mix_) mix_->set_user_background(uid, path);
  }
  log(base::NOTICE_LOG, "recovery " + std::to_string(options_.recovery_id) + " goes on " +
                            std::to_string(base::tick_ms() - options_.recovery_time) +
                            " ms after it was called for");
}

// Before anybody joins.
void session::learn_from_crash(const crash_suspect& crash) {
  const auto before = journal_.state.left_out;
  journal_.state.blame(crash);
  journal_.save();
  const bool more = journal_.state.left_out != before;
  log(base::WARN_LOG, "the recorder before this one crashed" +
                          (crash.uid != 0 ? " over user " + std::to_string(crash.uid) : "") +
                          (more ? "; its media is left out" : "; nobody's media is left out yet"));
}

std::string session::crash_note_path() const {
  return journal_.path() + ".crash";
}

// ---- The engine's commands -----------------------------------------------------------------

void session::on_leave_command() {
  if (phase_ == phase::kLingering) return done();
  leave(LEAVE_CODE_CLIENT_LEAVE, kExitDone);
}

void session::on_log_level(uint32_t level) {
  base::log_config::set_log_level(static_cast<base::log_levels>(level));
  journal_.state.log_level = level;
  journal_.save();
}

void session::on_log_modules(uint32_t modules, bool enable) {
  if (enable) {
    base::log_config::enable_module(modules);
  } else {
    base::log_config::disable_module(modules);
  }
  journal_.state.log_modules = base::log_config::get_enabled_modules();
  journal_.save();
}

void session::on_parameters(const std::string& text) {
  std::vector<std::string> warnings;
  const parameters changed = parse_parameters(text, warnings);
  for (const std::string& warning : warnings) log(base::WARN_LOG, warning);
  if (changed.idle) options_.idle = *changed.idle;
  if (changed.audio_indication_interval) set_volume_interval(*changed.audio_indication_interval);
  if (!changed.capture_interval) return;
  plan_.jpg_interval = std::chrono::seconds(*changed.capture_interval);
  for (const auto& one : users_) one.second->set_capture_interval(*changed.capture_interval);
}

void session::on_layout(const std::vector<uint8_t>& bytes) {
  if (!apply_layout(bytes)) return;
  journal_.state.layout = bytes;
  journal_.save();
}

bool session::apply_layout(const std::vector<uint8_t>& bytes) {
  recording::mixing_layout layout;
  if (!recording::decodeMixingLayout(bytes, layout)) {
    log(base::WARN_LOG, "a mixing layout that makes no sense was ignored");
    return false;
  }
  if (!mix_ || !plan_.mix_video) {
    log(base::WARN_LOG, "a mixing layout has no effect: no pictures are mixed");
    return false;
  }
  mix_->set_layout(layout);
  return true;
}

void session::on_user_background(uint32_t uid, const std::string& path) {
  if (!mix_ || !plan_.mix_video) {
    return log(base::WARN_LOG, "a user's background has no effect: no pictures are mixed");
  }
  mix_->set_user_background(uid, path);
  journal_.state.user_backgrounds[uid] = path;
  journal_.save();
}

void session::on_start_service() {
  if (options_.trigger_mode == MANUALLY_MODE) set_serving(true, "");
}

void session::on_stop_service() {
  if (options_.trigger_mode == MANUALLY_MODE) set_serving(false, "service stopped");
}

void session::set_serving(bool serving, const std::string& why) {
  if (serving == serving_ || phase_ == phase::kFinishing || phase_ == phase::kLingering) return;
  serving_ = serving;
  log(base::NOTICE_LOG, serving ? "service started" : why);
  for (const auto& one : users_) {
    if (serving) {
      one.second->start_service();
    } else {
      one.second->stop_service(why);
    }
  }
  if (mix_ && serving && !users_.empty()) mix_->start_service();
  if (mix_ && !serving) mix_->stop_service(why);
  journal_.state.serving = serving;
  journal_.save();
}

// An engine that died can't be told anything, but its recording is worth completing.
void session::on_engine_gone() {
  if (phase_ == phase::kLingering) return done();
  log(base::NOTICE_LOG, "the engine has hung up");
  leave(LEAVE_CODE_CLIENT_LEAVE, kExitDone);
}

void session::on_signal(int number) {
  log(base::NOTICE_LOG, "signal " + std::to_string(number));
  if (phase_ == phase::kFinishing || phase_ == phase::kLingering) return done();
  leave(LEAVE_CODE_SIG, kExitDone);
}

// ---- The channel ---------------------------------------------------------------------------

void session::on_channel_joined() {
  phase_ = phase::kRecording;
  joined_ms_ = base::tick_ms();
  alone_since_ms_ = joined_ms_;
  // How long the start took says nothing of the load.
  ticked_ms_ = measured_ms_ = joined_ms_;
  work_until_ms_ = joined_ms_ + kUserWorkMs;
  link_.send(
      make<protocol::join_channel_success_packet>(choose_uid(options_.uid), options_.channel_id));
}

void session::on_channel_failed(const std::string& why) {
  log(base::ERROR_LOG, kCannotJoin + why);
  tell_not_joined();
  leave(LEAVE_CODE_INIT, kExitNotJoined);
}

// The engine gets the error alone: there was no session that could be left.
void session::tell_not_joined() {
  link_.send(make<protocol::recorder_error_packet>(int32_t{ERR_FAILED},
                                                   uint32_t{STAT_ERR_ZRS_JOIN_CHANNEL}));
  reason_ = LEAVE_CODE_INIT;
}

std::string session::want_of_room() const {
  const auto most = static_cast<size_t>(settings_.most_users);
  if (most != 0 && users_.size() >= most) {
    return std::to_string(most) + " users at a time is the most (most_users of the settings)";
  }
  // One who takes the last descriptor takes it from all others' files. Those who are leaving have
  // theirs until their files are complete.
  return shortage_beyond(users_.size() + leaving_.size());
}

void session::on_user_in(uint32_t uid, const std::function<user_media()>& media) {
  if (phase_ != phase::kRecording || users_.count(uid) != 0) return;
  if (journal_.state.left_out_of(uid) == crash_stage::kReceiving) {
    return on_missing(uid, {"all", "", kCrashed});
  }
  const int64_t now = base::tick_ms();
  const std::string shortage = want_of_room();
  if (!shortage.empty()) return turn_away(uid, shortage, now);
  if (load_->room() == 0 || now > work_until_ms_) {
    return turn_away(uid, kTooBusy, now + kTellBusyMs);
  }
  user_media from = media();
  if (!from.source && !from.feed) return;
  // A feed that is decoded sees to it itself, once it is.
  const std::string threads = from.feed ? "" : load::shortage_of_threads(load::kGraphThreads);
  if (!threads.empty()) return turn_away(uid, threads, now);
  let_in(uid, std::move(from));
}

void session::turn_away(uint32_t uid, const std::string& why, int64_t tell_ms) {
  const bool at_once = tell_ms <= base::tick_ms();
  if (at_once) on_missing(uid, {"all", "", why});
  waiting_.add({uid, why, tell_ms, at_once});
}

void session::let_in(uint32_t uid, user_media from) {
  waiting_.remove(uid);
  // What was told of them by a recorder before this one is over, too.
  manifest_.end_missing(uid, "all");
  log(base::NOTICE_LOG, "user " + std::to_string(uid) + " joined");
  load_->let_in();
  in_order_.push_back(uid);
  const recording_plan plan = plan_for(uid);
  auto& made = users_[uid];
  made = std::make_unique<user>(
      uid, std::move(from), plan,
      surroundings{options_.recording_file_dir, loop_, manifest_, link_, disk_},
      mix_ ? mix_->add_user(uid) : nullptr, events_of(uid));
  made->measure_volume(volume_tick_ != nullptr);
  made->leave_out(load_->leaves_out(load::shed::kStills),
                  load_->leaves_out(load::shed::kApplicationPictures));
  link_.send(make<protocol::user_joined_packet>(uid, options_.recording_file_dir));
  if (serving_) made->start_service();
  // A mix begins with its first user: before, there is nothing to see or hear.
  if (serving_ && mix_) mix_->start_service();
  made->start();
}

// Without the pictures of one over whose pictures a recorder crashed; told once.
recording_plan session::plan_for(uint32_t uid) {
  recording_plan plan = plan_;
  plan.decode_pictures = journal_.state.left_out_of(uid) == crash_stage::kUnknown;
  const bool asked_for =
      plan.mix_video || plan.video_out == video_frames::kYuv || plan.jpg_packets || plan.jpg_files;
  if (!plan.decode_pictures && asked_for) on_missing(uid, {"decoded video", "", kCrashed});
  return plan;
}

user::events session::events_of(uint32_t uid) {
  user::events told;
  told.first_video = [this, uid](int width, int height) {
    link_.send(make<protocol::first_video_decoded_packet>(uid, width, height, elapsed_ms()));
    report_stream_status();
  };
  told.first_sound = [this, uid] {
    link_.send(make<protocol::first_audio_frame_packet>(uid, elapsed_ms()));
    report_stream_status();
  };
  told.failed = [this, uid](const std::string& why, bool disk) { on_files_failed(uid, why, disk); };
  told.missing = [this, uid](const missing_medium& what) { on_missing(uid, what); };
  told.ended = [this, uid](const std::string& why) { end_user(uid, why); };
  return told;
}

void session::on_user_out(uint32_t uid) {
  if (waiting_.remove(uid)) {
    manifest_.end_missing(uid, "all");
    if (users_.empty() && waiting_.empty()) alone_since_ms_ = base::tick_ms();
  }
  end_user(uid, "user left");
}

void session::end_user(uint32_t uid, const std::string& why) {
  const auto found = users_.find(uid);
  if (found == users_.end()) return;
  log(base::NOTICE_LOG, "user " + std::to_string(uid) + " out: " + why);
  leaving_.push_back(std::move(found->second));
  users_.erase(found);
  in_order_.erase(std::find(in_order_.begin(), in_order_.end(), uid));
  if (mix_) mix_->remove_user(uid);
  if (users_.empty()) alone_since_ms_ = base::tick_ms();
  link_.send(make<protocol::user_dropped_packet>(uid));
  report_stream_status();
  user* const gone = leaving_.back().get();
  gone->finish(why, [this, gone] {
    leaving_.erase(std::remove_if(leaving_.begin(), leaving_.end(),
                                  [gone](const auto& old) { return old.get() == gone; }),
                   leaving_.end());
    complete_when_idle();
  });
}

// The user stays, and so does the recording: the rest and the others are recorded.
void session::on_missing(uint32_t uid, const missing_medium& what) {
  if (!manifest_.note_missing(uid, what)) return;
  manifest_.changed();
  const std::string medium = what.codec.empty() ? what.medium : what.medium + ", " + what.codec;
  log(uid == 0 ? base::WARN_LOG : base::ERROR_LOG,
      (uid == 0 ? "" : "user " + std::to_string(uid) + ": ") + "not recorded (" + medium +
          "): " + what.reason);
  // The application knows nobody whom it could concern.
  if (uid == 0) return;
  link_.send(make<protocol::recorder_error_packet>(int32_t{ERR_INVALID_ARGUMENT},
                                                   uint32_t{STAT_ERR_FROM_ENGINE}));
}

void session::on_channel_interrupted() {
  link_.send(protocol::connection_interrupted_packet());
}

void session::on_channel_lost() {
  log(base::ERROR_LOG, "the channel is lost");
  link_.send(protocol::connection_lost_packet());
  leave(LEAVE_CODE_TIMER_CATCH, kExitDone);
}

// ---- The load ------------------------------------------------------------------------------

void session::measure_load() {
  measured_ms_ = base::tick_ms();
  for (const auto& one : users_) one.second->count_losses();
  for (const auto& one : leaving_) one->count_losses();
  load::reading now;
  now.behind = std::exchange(behind_, {});
  now.disk_behind = disk_.take_behind();
  const uint64_t lost = manifest_.all_lost_packets();
  now.lost = std::exchange(lost_packets_, lost) < lost;
  now.free_bytes = load::free_bytes();
  load_->read(now);
  tell_left_out();
  let_go();
}

void session::tell_left_out() {
  for (const load::shed what : things_to_leave_out(plan_)) {
    const bool left_out = load_->leaves_out(what);
    if (left_out == (left_out_.count(what) != 0)) continue;
    const missing_medium told = missing_of(what);
    if (left_out) {
      left_out_.insert(what);
      on_missing(0, told);
    } else {
      left_out_.erase(what);
      manifest_.end_missing(0, told.medium);
      log(base::NOTICE_LOG, told.medium + ": made again");
    }
    if (what == load::shed::kMixPictures) {
      mix_->halve_pictures(left_out);
      continue;
    }
    for (const auto& one : users_) {
      one.second->leave_out(load_->leaves_out(load::shed::kStills),
                            load_->leaves_out(load::shed::kApplicationPictures));
    }
  }
}

// Who came last has the least to lose.
void session::let_go() {
  const int64_t until = base::tick_ms() + kUserWorkMs;
  for (size_t left = load_->too_many(users_.size()); left > 0; --left) {
    if (base::tick_ms() > until) return;
    const uint32_t uid = in_order_.back();
    end_user(uid, "let go");
    turn_away(uid, kLetGo, base::tick_ms());
  }
}

void session::call_in() {
  while (!waiting_.empty() && load_->room() > 0 && base::tick_ms() <= work_until_ms_ &&
         want_of_room().empty()) {
    const uint32_t uid = waiting_.first();
    const bool here = channel_->offer_again(uid);
    if (users_.count(uid) != 0) continue;
    if (!here) {
      waiting_.remove(uid);
      continue;
    }
    // What keeps them out may keep nobody else.
    waiting_.put_last(uid);
    break;
  }
  tell_who_waits(base::tick_ms());
}

// Those whose time it is; and all, if there is another reason by now than that many came at once.
void session::tell_who_waits(int64_t now) {
  const std::string shortage = waiting_.empty() ? "" : want_of_room();
  for (auto& one : waiting_.all()) {
    if (one.told || (shortage.empty() && one.tell_ms > now)) continue;
    one.told = true;
    if (!shortage.empty()) one.why = shortage;
    on_missing(one.uid, {"all", "", one.why});
  }
}

// ---- The users' media ----------------------------------------------------------------------

void session::report_stream_status() {
  const auto any = [this](media::media_kind kind) {
    return std::any_of(users_.begin(), users_.end(),
                       [kind](const auto& one) { return one.second->has(kind); });
  };
  const bool audio = any(media::media_kind::kAudio);
  const bool video = any(media::media_kind::kVideo);
  if (audio == receives_audio_ && video == receives_video_) return;
  receives_audio_ = audio;
  receives_video_ = video;
  link_.send(make<protocol::receiving_stream_status_packet>(int32_t{audio}, int32_t{video}));
}

void session::set_volume_interval(int interval_ms) {
  if (volume_tick_ != nullptr) loop_.remove_timer(std::exchange(volume_tick_, nullptr));
  for (const auto& one : users_) one.second->measure_volume(interval_ms > 0);
  if (interval_ms <= 0) return;
  volume_tick_ = loop_.add_timer(
      interval_ms, [](int, void* self) { static_cast<session*>(self)->report_volumes(); }, this);
}

void session::report_volumes() {
  if (phase_ != phase::kRecording || users_.empty()) return;
  std::vector<uint32_t> uids;
  std::vector<uint32_t> volumes;
  for (const auto& [uid, one] : users_) {
    uids.push_back(uid);
    volumes.push_back(one->read_volume());
  }
  const auto loudest = std::max_element(volumes.begin(), volumes.end());
  const uint32_t speaker = uids[static_cast<size_t>(loudest - volumes.begin())];
  const auto active = users_.find(active_speaker_);
  const uint32_t held =
      active != users_.end()
          ? volumes[static_cast<size_t>(std::distance(users_.begin(), active))] + kSpeakerLead
          : kSpeakingVolume;
  const bool speaks = *loudest >= std::max(kSpeakingVolume, held);
  link_.send(make<protocol::audio_volume_indication_packet>(std::move(uids), std::move(volumes)));
  if (!speaks || speaker == active_speaker_) return;
  active_speaker_ = speaker;
  link_.send(make<protocol::active_speaker_packet>(speaker));
}

// From inside a file's own call, so the end comes later.
void session::on_files_failed(uint32_t uid, const std::string& why, bool fatal) {
  if (!fatal) return on_missing(uid, {uid == 0 ? "mix" : "all", "", why});
  log(base::ERROR_LOG, "recording failed: " + why);
  posting_.post([this] {
    for (const auto& one : users_) one.second->abandon_files();
    for (const auto& one : leaving_) one->abandon_files();
    if (mix_) mix_->abandon_files();
    if (phase_ != phase::kRecording) return;
    link_.send(
        make<protocol::recorder_error_packet>(int32_t{ERR_FAILED}, uint32_t{STAT_ERR_FROM_ENGINE}));
    leave(LEAVE_CODE_TIMER_CATCH, kExitDisk);
  });
}

// ---- The end -------------------------------------------------------------------------------

void session::on_tick() {
  const int64_t now = base::tick_ms();
  if (phase_ == phase::kLingering && now >= linger_until_ms_) return done();
  const int64_t since_tick_ms = now - std::exchange(ticked_ms_, now);
  if (since_tick_ms > kStandstillMs) {
    log(base::NOTICE_LOG, "stood still for " + std::to_string(since_tick_ms) + " ms");
    caught_up_ms_ = now + kCatchUpMs;
  }
  work_until_ms_ = now + kUserWorkMs;
  const auto late = std::chrono::milliseconds(since_tick_ms - kTickMs);
  const media::media_time behind =
      std::max<media::media_time>(channel_ ? channel_->take_behind() : late, late);
  behind_ = std::max(behind_, behind);
  if (behind > kLate) caught_up_ms_ = now + kCatchUpMs;
  if (now >= caught_up_ms_) look_for_gaps();
  manifest_.save_changes();
  if (phase_ != phase::kRecording) return;
  if (now - measured_ms_ >= kMeasureMs) measure_load();
  call_in();
  if (now - saved_ms_ >= kSaveMs && !users_.empty()) save_manifest();
  if (users_.empty() && waiting_.empty() &&
      now - alone_since_ms_ >= int64_t{options_.idle} * 1000) {
    log(base::NOTICE_LOG, "nobody here for " + std::to_string(options_.idle) + " s");
    leave(LEAVE_CODE_NO_USERS, kExitDone);
  }
}

void session::look_for_gaps() {
  for (const auto& one : users_) one.second->tick();
  for (const auto& one : leaving_) one->tick();
  if (mix_) mix_->tick();
}

void session::save_manifest() {
  saved_ms_ = base::tick_ms();
  for (const auto& one : users_) one.second->update_manifest();
  for (const auto& one : leaving_) one->update_manifest();
  if (mix_) mix_->update_manifest();
  const auto& dropped = link_.dropped();
  manifest_.set_dropped({dropped.pictures, dropped.coded, dropped.sound});
  manifest_.save();
}

// A folder that was removed takes no file any more, though those that are open don't notice.
void session::on_not_written(const std::string& path, int error) {
  const bool journal_lost = path == journal_.path();
  log(base::ERROR_LOG, "can't write " + path + ": " + std::strerror(error) +
                           (journal_lost ? "; a recovery would forget" : ""));
  if (journal_lost || is_shortage(error) || phase_ != phase::kRecording) return;
  on_files_failed(0, "the recording folder can't be written", true);
}

void session::leave(uint32_t reason, int status) {
  if (phase_ == phase::kFinishing || phase_ == phase::kLingering || phase_ == phase::kDone) return;
  phase_ = phase::kFinishing;
  reason_ = reason;
  status_ = status;
  // Nobody goes in silence.
  tell_who_waits(std::numeric_limits<int64_t>::max());
  waiting_.clear();
  if (channel_) channel_->leave();
  // The mix first: it still has to mix what its users have sent by now.
  if (mix_) {
    mix_->finish("recording ended");
  } else {
    mix_finished_ = true;
  }
  while (!users_.empty()) end_user(users_.begin()->first, "recording ended");
  complete_when_idle();
}

void session::complete_when_idle() {
  if (phase_ != phase::kFinishing || !mix_finished_ || !users_.empty() || !leaving_.empty()) return;
  const auto& dropped = link_.dropped();
  const dropped_counts counts{dropped.pictures, dropped.coded, dropped.sound};
  manifest_.set_dropped(counts);
  manifest_.save();
  if (writer_.flush(kLastWriteLimit) == ETIMEDOUT) {
    log(base::WARN_LOG, "the disk is too slow for a last " + manifest_.name());
  } else {
    journal_.remove();
  }
  if (counts.pictures + counts.coded + counts.sound > 0) {
    log(base::WARN_LOG,
        "frames were dropped, because the engine was too slow: " + std::to_string(counts.pictures) +
            " pictures, " + std::to_string(counts.coded) + " coded, " +
            std::to_string(counts.sound) + " of sound");
  }
  if (reason_ != LEAVE_CODE_INIT) link_.send(make<protocol::recorder_leave_packet>(reason_));
  if (reason_ == LEAVE_CODE_CLIENT_LEAVE) return done();
  linger();
}

void session::linger() {
  if (!link_.connected()) return done();
  phase_ = phase::kLingering;
  linger_until_ms_ = base::tick_ms() + kLingerMs;
}

void session::done() {
  if (phase_ == phase::kDone) return;
  phase_ = phase::kDone;
  link_.flush(kFlushLimit);
  log(base::NOTICE_LOG, "recorder ends, reason " + std::to_string(reason_));
  loop_.stop();
}

int session::elapsed_ms() const {
  return static_cast<int>(base::tick_ms() - joined_ms_);
}

void session::log(base::log_levels level, const std::string& text) const {
  base::log_dir(options_.recording_file_dir.c_str(), level,
                base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER, "%s", text.c_str());
}

}  // namespace zelta::core_service
