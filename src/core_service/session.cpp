// SPDX-License-Identifier: Apache-2.0
#include "core_service/session.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <random>
#include <utility>

#include "IZeltaRecordingEngine.h"
#include "base/clocks.h"

namespace zelta::core_service {
namespace {

using namespace linuxsdk;
using namespace std::chrono_literals;

constexpr int kTickMs = 500;
// The manifest of a running recording is this fresh.
constexpr uint32_t kTicksPerSave = 4;
// A recorder that left by itself waits so long for the engine to hang up: an application that
// leaves when it is told so never sees the link break.
constexpr int64_t kLingerMs = 5000;
constexpr std::chrono::milliseconds kFlushLimit = 1s;

uint32_t choose_uid(unsigned given) {
  if (given != 0) return given;
  std::random_device random;
  return std::uniform_int_distribution<uint32_t>(1, 0x7FFFFFFF)(random);
}

media::media_plan plan_of(const options& o) {
  media::media_plan plan;
  plan.take_audio = !o.video_only;
  plan.take_video = !o.audio_only;
  if (o.decode_audio == AUDIO_FORMAT_AAC_FRAME_TYPE) plan.audio_frames = media::frame_kind::kAac;
  if (o.decode_audio == AUDIO_FORMAT_PCM_FRAME_TYPE) plan.audio_frames = media::frame_kind::kPcm;
  if (o.decode_video == VIDEO_FORMAT_H264_FRAME_TYPE) plan.video_frames = media::frame_kind::kH264;
  if (o.decode_video == VIDEO_FORMAT_YUV_FRAME_TYPE) plan.video_frames = media::frame_kind::kYuv;
  plan.avsync_type = o.av_sync_type;
  return plan;
}

template <class Packet, class... Values>
Packet make(Values&&... values) {
  Packet packet;
  Packet::fields(packet) = std::make_tuple(std::forward<Values>(values)...);
  return packet;
}

}  // namespace

session::session(options given, std::string server, base::event_loop& loop)
    : options_(std::move(given)),
      server_(std::move(server)),
      loop_(loop),
      link_(options_.read_fd, options_.write_fd, loop, *this, options_.recording_file_dir),
      manifest_(options_.recording_file_dir, options_.channel_id) {}

session::~session() {
  if (tick_ != nullptr) loop_.remove_timer(tick_);
}

void session::start() {
  link_.send(make<protocol::hello_packet>(protocol::kProtocolVersion,
                                          std::string("ZeltaCoreService " ZELTA_REVISION)));
  tick_ = loop_.add_timer(
      kTickMs, [](int, void* self) { static_cast<session*>(self)->on_tick(); }, this);
  alone_since_ms_ = base::tick_ms();
  std::string idle;
  for (const std::string& name : options_without_effect(options_)) idle += " " + name;
  if (!idle.empty()) log(base::WARN_LOG, "options without effect in this recorder:" + idle);
  if (!manifest_.save()) {
    return on_channel_failed("the recording folder " + options_.recording_file_dir +
                             " can't be written");
  }
  std::string error;
  channel_ = make_channel({server_, options_.channel_id, options_.recording_file_dir}, loop_, *this,
                          error);
  if (!channel_) return on_channel_failed(error);
  log(base::NOTICE_LOG, "joining channel " + options_.channel_id + " at " + server_);
  channel_->join();
}

// ---- The engine's commands -----------------------------------------------------------------

void session::on_leave_command() {
  if (phase_ == phase::kLingering) return done();
  leave(LEAVE_CODE_CLIENT_LEAVE, kExitDone);
}

void session::on_log_level(uint32_t level) {
  base::log_config::set_log_level(static_cast<base::log_levels>(level));
}

void session::on_log_modules(uint32_t modules, bool enable) {
  if (enable) {
    base::log_config::enable_module(modules);
  } else {
    base::log_config::disable_module(modules);
  }
}

void session::on_other_command(const char* name) {
  log(base::WARN_LOG, std::string("command without effect in this recorder: ") + name);
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
  link_.send(
      make<protocol::join_channel_success_packet>(choose_uid(options_.uid), options_.channel_id));
}

void session::on_channel_failed(const std::string& why) {
  log(base::ERROR_LOG, "can't join: " + why);
  link_.send(make<protocol::recorder_error_packet>(int32_t{ERR_FAILED},
                                                   uint32_t{STAT_ERR_ZRS_JOIN_CHANNEL}));
  // The engine gets the error alone: there was no session that could be left.
  reason_ = LEAVE_CODE_INIT;
  leave(LEAVE_CODE_INIT, kExitNotJoined);
}

void session::on_user_in(uint32_t uid, user_media from) {
  if (phase_ != phase::kRecording || users_.count(uid) != 0) return;
  log(base::NOTICE_LOG, "user " + std::to_string(uid) + " joined");
  auto& graph = users_[uid];
  graph = std::make_unique<media::user_graph>(
      uid, std::move(from), plan_of(options_),
      media::user_graph::surroundings{options_.recording_file_dir, loop_, manifest_, link_, *this});
  link_.send(make<protocol::user_joined_packet>(uid, options_.recording_file_dir));
  graph->start();
}

void session::on_user_out(uint32_t uid) {
  end_user(uid, "user left");
}

void session::end_user(uint32_t uid, const std::string& why) {
  const auto found = users_.find(uid);
  if (found == users_.end()) return;
  log(base::NOTICE_LOG, "user " + std::to_string(uid) + " out: " + why);
  leaving_.push_back(std::move(found->second));
  users_.erase(found);
  if (users_.empty()) alone_since_ms_ = base::tick_ms();
  link_.send(make<protocol::user_dropped_packet>(uid));
  report_stream_status();
  leaving_.back()->finish(why);
}

void session::on_channel_interrupted() {
  link_.send(protocol::connection_interrupted_packet());
}

void session::on_channel_lost() {
  log(base::ERROR_LOG, "the channel is lost");
  link_.send(protocol::connection_lost_packet());
  leave(LEAVE_CODE_TIMER_CATCH, kExitDone);
}

// ---- The users' media ----------------------------------------------------------------------

void session::on_first_video(uint32_t uid, int width, int height) {
  link_.send(make<protocol::first_video_decoded_packet>(uid, width, height, elapsed_ms()));
  report_stream_status();
}

void session::on_first_audio(uint32_t uid) {
  link_.send(make<protocol::first_audio_frame_packet>(uid, elapsed_ms()));
  report_stream_status();
}

void session::report_stream_status() {
  const auto any = [this](media::media_kind kind) {
    return std::any_of(users_.begin(), users_.end(),
                       [kind](const auto& user) { return user.second->has(kind); });
  };
  const bool audio = any(media::media_kind::kAudio);
  const bool video = any(media::media_kind::kVideo);
  if (audio == receives_audio_ && video == receives_video_) return;
  receives_audio_ = audio;
  receives_video_ = video;
  link_.send(make<protocol::receiving_stream_status_packet>(int32_t{audio}, int32_t{video}));
}

void session::on_graph_finished(media::user_graph& graph, const std::string& why, bool disk) {
  const auto user = users_.find(graph.uid());
  if (user != users_.end() && user->second.get() == &graph) end_user(graph.uid(), why);
  leaving_.erase(std::remove_if(leaving_.begin(), leaving_.end(),
                                [&graph](const auto& old) { return old.get() == &graph; }),
                 leaving_.end());
  if (disk && phase_ == phase::kRecording) {
    link_.send(
        make<protocol::recorder_error_packet>(int32_t{ERR_FAILED}, uint32_t{STAT_ERR_FROM_ENGINE}));
    leave(LEAVE_CODE_TIMER_CATCH, kExitDisk);
  }
  complete_when_idle();
}

// ---- The end -------------------------------------------------------------------------------

void session::on_tick() {
  const int64_t now = base::tick_ms();
  if (phase_ == phase::kLingering && now >= linger_until_ms_) return done();
  if (phase_ != phase::kRecording) return;
  if (++ticks_ % kTicksPerSave == 0 && !users_.empty()) {
    for (const auto& user : users_) user.second->update_manifest();
    manifest_.save();
  }
  if (users_.empty() && now - alone_since_ms_ >= int64_t{options_.idle} * 1000) {
    log(base::NOTICE_LOG, "nobody here for " + std::to_string(options_.idle) + " s");
    leave(LEAVE_CODE_NO_USERS, kExitDone);
  }
}

void session::leave(uint32_t reason, int status) {
  if (phase_ == phase::kFinishing || phase_ == phase::kLingering || phase_ == phase::kDone) return;
  phase_ = phase::kFinishing;
  reason_ = reason;
  status_ = status;
  if (channel_) channel_->leave();
  while (!users_.empty()) end_user(users_.begin()->first, "recording ended");
  complete_when_idle();
}

void session::complete_when_idle() {
  if (phase_ != phase::kFinishing || !users_.empty() || !leaving_.empty()) return;
  manifest_.save();
  const uint64_t dropped = link_.dropped_frames();
  if (dropped > 0) {
    log(base::WARN_LOG, std::to_string(dropped) + " frames were dropped: the engine was too slow");
  }
  if (reason_ != LEAVE_CODE_INIT) link_.send(make<protocol::recorder_leave_packet>(reason_));
  if (reason_ == LEAVE_CODE_CLIENT_LEAVE || !link_.connected()) return done();
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
