// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/user.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service {
namespace {

using namespace std::chrono_literals;
using media::form;
using media::media_time;

constexpr int kFileBitsPerSecond = 64'000;
// What was captured before a stop may take so long to arrive.
constexpr media_time kStopPatience = 300ms;
constexpr media_time kSoundPatience = 1s;
constexpr media_time kFirstKeyFramePatience = 5s;
constexpr const char* kUnread =
    "the last ones were not read in time, because the machine was too busy";

// A feed says in words how its media ended by itself.
files::recording_end end_of_media(const std::string& why) {
  if (why == files::name_of(files::end_reason::kEndOfMedia)) return files::end_reason::kEndOfMedia;
  return why;
}

}  // namespace

user::user(uint32_t uid, std::shared_ptr<media::media_feed> from, const recording_plan& plan,
           bool may_decode_pictures, files::destination to, engine_link& engine,
           std::shared_ptr<media::consumer> mix, events told)
    : uid_(uid),
      plan_(plan),
      destination_(std::move(to)),
      events_(std::move(told)),
      poster_(destination_.loop),
      feed_(std::move(from)),
      lateness_(feed_->lateness()) {
  make_consumers(may_decode_pictures, engine, std::move(mix));
  decoders_ = std::make_unique<decoders>(
      uid_, consumers_, plan_.channels, feed_, destination_.loop,
      decoders::events{events_.missing, events_.over, [this] { on_media_end(); }});
}

user::~user() {
  // Its threads ask the feed for key frames, and must not be the last to hold it.
  decoders_.reset();
}

void user::make_consumers(bool may_decode_pictures, engine_link& engine,
                          std::shared_ptr<media::consumer> mix) {
  std::vector<std::shared_ptr<media::consumer>> all{
      std::make_shared<frames_consumer>(uid_, plan_, engine, destination_.log)};
  if (plan_.record_sound || plan_.record_video) {
    files_ = make_files();
    all.push_back(files_);
  }
  if (plan_.take_video && plan_.jpg_files) {
    all.push_back(std::make_shared<files::stills_consumer>(
        uid_, destination_.folder, destination_.ledger, destination_.loop,
        files::stills_consumer::events{
            [this](const std::string& why) { events_.failed(why, true); }, events_.missing}));
  }
  if (plan_.take_sound) {
    volume_ = std::make_shared<media::volume_meter>(plan_.channels);
    all.push_back(volume_);
  }
  if (mix) all.push_back(std::move(mix));
  consumers_ = media::consumers(std::move(all));
  if (may_decode_pictures) return;
  for (const form what : {form::kPictures, form::kUprightPictures, form::kStills}) {
    consumers_ = consumers_.without(what);
  }
}

std::shared_ptr<files::files_consumer> user::make_files() {
  files::series_settings files;
  files.uid = uid_;
  files.prefix = std::to_string(uid_);
  files.video = plan_.record_video;
  files.sound = plan_.record_sound;
  files.channels = plan_.channels;
  files.sound_bits_per_second = kFileBitsPerSecond;
  files.chunk = plan_.chunk;
  files.longest_gap = plan_.longest_gap;
  files.lateness = lateness_;
  return std::make_shared<files::files_consumer>(
      std::move(files), plan_.keep_opus, destination_,
      files::file_series::events{[this] { request_key_frame(); }, events_.failed,
                                 [this] {
                                   if (media_ended_ && finished_) tell_finished();
                                 }});
}

// ---- Media in units ------------------------------------------------------------------------

bool user::has(media::media_kind kind) const {
  return kind == media::media_kind::kVideo ? first_video_.has_value() : has_sound_;
}

void user::on_unit(int track, const media::encoded_unit& unit) {
  const media::codec& kind = *unit.format->kind;
  const bool video = kind.kind == media::media_kind::kVideo;
  const bool taken = video ? consumers_.takes(form::kCodedPictures) || decoders_->wanted(kind.kind)
                           : consumers_.takes(form::kSound);
  if (!taken) return;
  on_first(unit);
  media::track_choice& choice = video ? video_choice_ : sound_choice_;
  const bool counts = choice.counts(track, unit.time, !video || unit.key);
  // Before its samples can come out of the decoder.
  if (counts && !video && files_) files_->expect_sound(unit.format, unit.time);
  // What it says of itself may make decoding superfluous.
  if (counts) hand_on(unit);
  if (decoders_->wanted(kind.kind)) {
    // Sound that doesn't count needs no decoder of its own.
    if (video || counts) decoders_->push(track, unit);
  } else if (video) {
    decoders_->skipped_picture();
  }
  if (!counts && video && choice.is_free(unit.time)) request_key_frame();
}

void user::on_first(const media::encoded_unit& unit) {
  if (unit.format->kind->kind == media::media_kind::kAudio) {
    if (!std::exchange(has_sound_, true)) events_.first_sound();
  } else if (!first_video_) {
    first_video_ = unit.time;
    events_.first_video(unit.format->width, unit.format->height);
  }
}

void user::hand_on(const media::encoded_unit& unit) {
  const media::codec& kind = *unit.format->kind;
  if (kind.kind == media::media_kind::kAudio) {
    return consumers_.each(form::kCodedSound,
                           [&](media::consumer& one) { one.on_coded_sound(unit); });
  }
  if (!consumers_.wants(form::kCodedPictures)) return;
  const media::media_sample sample = video_samples_.of(unit);
  consumers_.each(form::kCodedPictures,
                  [&](media::consumer& one) { one.on_coded_picture(sample, kind); });
}

// Whoever left soon may not have sent one.
void user::tell_undecodable() {
  if (!serving_ || !files_ || !plan_.record_video || !first_video_) return;
  const files::file_series& series = files_->series();
  const media_time since = std::max(*first_video_, series.started());
  if (series.has_pictures() || finish_time_ - since < kFirstKeyFramePatience) return;
  events_.missing({"video", "", "no picture came that can be decoded by itself"});
}

void user::count_losses() {
  const uint64_t lost = feed_->lost_packets();
  if (lost == lost_packets_) return;
  destination_.ledger.packets_lost(uid_, lost - lost_packets_);
  if (std::exchange(lost_packets_, lost) > 0) return;
  events_.missing({"packets", "", feed_->why_lost()});
}

void user::request_key_frame() {
  feed_->request_key_frame();
}

// ---- The service ---------------------------------------------------------------------------

void user::start() {
  media::media_feed::events told;
  told.kinds_known = [this](media::kinds may_come) {
    if (files_) files_->series().expect(may_come.video, may_come.sound);
  };
  told.sound_expected = [this](const media::format_ptr& sound) {
    if (files_) files_->expect_sound(sound, media::now());
  };
  told.unit = [this](int track, const media::encoded_unit& unit) { on_unit(track, unit); };
  told.track_ended = [this](int track) {
    video_choice_.ended(track);
    sound_choice_.ended(track);
    decoders_->end_track(track);
  };
  told.text = [this](const media::user_text& what) {
    if (serving_) events_.text(what);
  };
  told.missing = events_.missing;
  told.over = [this](const std::string& why) { events_.ended(end_of_media(why)); };
  feed_->start({plan_.take_video, plan_.take_sound}, std::move(told));
}

void user::start_service() {
  if (std::exchange(serving_, true)) return;
  if (files_) files_->series().start();
  consumers_.each([](media::consumer& one) { one.serve(true); });
  if (consumers_.takes(form::kAccessUnits)) request_key_frame();
}

void user::stop_service(const files::recording_end& why) {
  if (!std::exchange(serving_, false)) return;
  consumers_.each([](media::consumer& one) { one.serve(false); });
  if (files_) files_->series().stop(why, media::now(), lateness_ + kStopPatience);
}

void user::abandon_files() {
  if (files_) files_->series().abandon();
}

uint32_t user::volume_to_report() {
  return volume_ ? volume_->read(reported_) : 0;
}

uint32_t user::volume_to_keep() {
  return volume_ ? volume_->read(kept_) : 0;
}

void user::measure_volume(media::volume_meter::ask what) {
  if (volume_) volume_->measure(what);
}

void user::set_still_interval(int seconds) {
  decoders_->set_still_interval(std::chrono::seconds(seconds));
}

void user::leave_out(bool stills, bool application_pictures) {
  consumers_.each([&](media::consumer& one) {
    one.leave_out(form::kStills, stills);
    one.leave_out(form::kPictures, application_pictures);
  });
}

void user::finish(const files::recording_end& why, std::function<void()> finished) {
  finish_reason_ = why;
  finished_ = std::move(finished);
  finish_time_ = media::now();
  feed_->stop([this] {
    count_losses();
    if (feed_->left_unread()) events_.missing({"packets", "", kUnread});
    tell_undecodable();
    const bool by_itself = *finish_reason_ == files::recording_end(files::end_reason::kEndOfMedia);
    decoders_->finish(by_itself ? media_time::zero() : kFirstKeyFramePatience);
  });
}

void user::on_media_end() {
  media_ended_ = true;
  if (!files_) return poster_.post([this] { tell_finished(); });
  files::file_series& series = files_->series();
  // Media that ended by itself ends where its last sound or picture does.
  media_time end = finish_time_;
  if (finish_reason_ == files::recording_end(files::end_reason::kEndOfMedia)) {
    end = std::max(series.last_video_end(), series.last_heard().value_or(media_time::zero()));
  }
  series.stop(*finish_reason_, end, 0s);
}

// A copy, because what is called may destroy this.
void user::tell_finished() const {
  const std::function<void()> finished = finished_;
  finished();
}

void user::tick() {
  const std::string fault = !media_ended_ ? feed_->fault() : "";
  if (!fault.empty()) events_.missing({"all", "", fault});
  count_losses();
  // Between the end of the sender and the end of what it sent nothing is missing.
  const bool draining = finish_reason_ && !media_ended_;
  if (files_ && !draining) files_->series().tick();
  const media_time until = media::now() - lateness_ - kSoundPatience;
  consumers_.each([until](media::consumer& one) { one.fill_sound(until); });
}

void user::tell_progress() {
  if (files_) files_->series().tell_progress();
}

}  // namespace zelta::core_service
