// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/user.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core_service/folder/file_name.h"
#include "core_service/load/descriptors.h"
#include "core_service/load/room_left.h"

namespace zelta::core_service {
namespace {

using namespace std::chrono_literals;
using media::media_time;

constexpr int kFileBitsPerSecond = 64'000;
// What was captured before a stop may take so long to arrive.
constexpr media_time kStopPatience = 300ms;
constexpr media_time kSoundPatience = 1s;
// Of what is decoded: no unit is older than the first by so much.
constexpr media_time kOldest = 10s;
constexpr media_time kFirstKeyFramePatience = 5s;
constexpr media_time kThreadsPatience = 5s;
constexpr const char* kUnread =
    "the last ones were not read in time, because the machine was too busy";

}  // namespace

user::user(uint32_t uid, media::user_media from, const recording_plan& plan,
           bool may_decode_pictures, surroundings around, std::shared_ptr<media::mix_input> mix,
           events told)
    : uid_(uid),
      plan_(plan),
      may_decode_pictures_(may_decode_pictures),
      around_(std::move(around)),
      told_(std::move(told)),
      mix_(std::move(mix)),
      posting_(around_.loop),
      lateness_(from.lateness),
      feed_(std::move(from.feed)) {
  frames_ = std::make_shared<media::frame_sender>(media::frame_labels{uid_, plan_.avsync_type},
                                                  around_.link);
  if (plan_.sound_out == sound_frames::kPcm || plan_.sound_out == sound_frames::kAac) {
    frame_line_.emplace(static_cast<size_t>(plan_.channels), plan_.longest_gap, media::kFrameBlock);
  }
  make_series(from.may_have_video, from.may_have_sound);
  outputs_ = outputs();
  if (!feed_) make_graph(std::move(from));
  const media::format_ptr sound = feed_ ? feed_->likely_sound() : nullptr;
  if (sound && series_) expect_sound(sound, media::now());
}

user::~user() {
  // Each feeds what goes behind it.
  feed_.reset();
  graph_.reset();
}

void user::make_graph(media::user_media from) {
  media::user_graph::events told{told_.first_video, told_.first_sound,
                                 [this](bool sound, bool video) {
                                   if (series_) series_->expect(video, sound);
                                 },
                                 told_.missing,
                                 [this](const std::string& why) { on_graph_finished(why); }};
  media::user_outputs to = outputs_;
  if (feed_) {
    // The units say so themselves, and go into the files without it.
    told.first_video = [](int, int) {};
    told.first_sound = [] {};
    to.video = nullptr;
  }
  graph_ = std::make_unique<media::user_graph>(uid_, std::move(from), std::move(to), around_.loop,
                                               std::move(told), around_.log);
  graph_->hold_jpgs(no_stills_);
}

void user::make_series(bool may_have_video, bool may_have_sound) {
  if (!plan_.record_sound && !plan_.record_video) return;
  files::series_plan files;
  files.uid = uid_;
  files.prefix = std::to_string(uid_);
  files.video = plan_.record_video;
  files.sound = plan_.record_sound;
  files.channels = plan_.channels;
  files.sound_bits_per_second = kFileBitsPerSecond;
  files.chunk = plan_.chunk;
  files.longest_gap = plan_.longest_gap;
  files.lateness = lateness_;
  series_ = std::make_unique<files::file_series>(
      files,
      files::file_series::surroundings{around_.folder, around_.loop, around_.files, around_.disk},
      files::file_series::events{[this] { request_key_frame(); }, told_.failed,
                                 [this] {
                                   if (media_ended_ && finished_) tell_finished();
                                 }});
  series_->expect(may_have_video, may_have_sound);
}

media::user_outputs user::outputs() {
  media::user_outputs to;
  to.channels = plan_.channels;
  if (plan_.record_video) {
    to.video = [this](const media::media_sample& sample, const media::codec& kind) {
      series_->on_video(sample, kind);
    };
  }
  if (plan_.take_sound) {
    to.sound = [this](media_time time, const int16_t* samples, size_t frames) {
      on_sound(time, samples, frames);
    };
  }
  if (plan_.take_video && plan_.video_out == video_frames::kH264) {
    to.h264 = [this](const media::media_sample& sample, int rotation) {
      if (serving_) frames_->send_h264(sample, rotation);
    };
  }
  if (may_decode_pictures_ && plan_.take_video && plan_.video_out == video_frames::kYuv) {
    to.yuv = [this](GstSample* picture, media_time time, int rotation) {
      if (serving_ && !no_application_pictures_) frames_->send_yuv(picture, time, rotation);
    };
  }
  if (may_decode_pictures_ && plan_.mix_video && mix_) {
    to.mix = [this](GstSample* picture, media_time time) { mix_->on_picture(picture, time); };
  }
  if (may_decode_pictures_ && plan_.take_video && (plan_.jpg_packets || plan_.jpg_files)) {
    to.jpg_interval = plan_.jpg_interval;
    to.jpg = [this](const media::media_sample& sample, int rotation) {
      if (!serving_ || no_stills_) return;
      if (plan_.jpg_packets) return frames_->send_jpg(sample, rotation);
      write_jpg(sample);
    };
  }
  return to;
}

// On the decoder's thread.
void user::on_sound(media_time time, const int16_t* samples, size_t frames) {
  volume_.add(samples, frames * static_cast<size_t>(plan_.channels));
  if (mix_) mix_->on_sound(time, samples, frames);
  if (!keeps_sound_ && series_ && series_->sound() != nullptr) {
    series_->sound()->push(time, samples, frames);
  }
  if (!frame_line_ || !serving_) return;
  if (!frame_line_->position()) start_frames(time);
  frame_line_->push(time, samples, frames);
}

void user::start_frames(media_time time) {
  if (plan_.sound_out == sound_frames::kPcm) {
    return frame_line_->start(time, std::make_shared<media::pcm_sink>(frames_, plan_.channels));
  }
  std::string error;
  auto encoder = media::sound_encoder::make(
      {media::sound_codec::kAdts, plan_.channels, media::kAacFrameBitsPerSecond},
      {[frames = frames_](const media::media_sample& sample) { frames->send_aac(sample); },
       nullptr},
      error);
  if (encoder) return frame_line_->start(time, std::move(encoder));
  around_.log.error("no AAC frames: " + error);
}

// On the encoder's thread. Written under another name first, so that whoever looks for pictures
// finds whole ones.
void user::write_jpg(const media::media_sample& sample) {
  const std::string path =
      around_.folder + claim_file(around_.folder, std::to_string(uid_),
                                  media::utc_ms_of(sample.time), ".jpg", ".new");
  const std::string fresh = path + ".new";
  GstMapInfo map{};
  if (gst_buffer_map(sample.buffer.get(), &map, GST_MAP_READ) == FALSE) return;
  std::FILE* const file = std::fopen(fresh.c_str(), "wbe");
  bool written = file != nullptr && std::fwrite(map.data, 1, map.size, file) == map.size;
  // Closing is what writes the rest.
  written = file != nullptr && std::fclose(file) == 0 && written;
  gst_buffer_unmap(sample.buffer.get(), &map);
  written = written && std::rename(fresh.c_str(), path.c_str()) == 0;
  posting_.post([this, written, path, error = errno] {
    if (written) return around_.files.count_picture(uid_);
    std::remove((path + ".new").c_str());
    if (!is_shortage(error)) {
      return told_.failed("can't write " + path + ": " + std::strerror(error), true);
    }
    told_.missing({"captured pictures", "jpeg", std::strerror(error)});
  });
}

// ---- Media in units ------------------------------------------------------------------------

bool user::has(media::media_kind kind) const {
  if (!feed_ && graph_) return graph_->has(kind);
  return kind == media::media_kind::kVideo ? first_video_.has_value() : has_sound_;
}

void user::on_unit(int track, const media::encoded_unit& unit) {
  const media::codec& kind = *unit.format->kind;
  const bool video = kind.kind == media::media_kind::kVideo;
  const bool taken = video ? outputs_.video || is_decoded(kind) : outputs_.sound != nullptr;
  if (!taken) return;
  on_first(unit);
  media::track_choice& choice = video ? video_choice_ : sound_choice_;
  const bool counts = choice.counts(track, unit.time, !video || unit.key);
  // Before its samples can come out of the decoder.
  if (counts && !video && series_ && plan_.record_sound) expect_sound(unit.format, unit.time);
  if (is_decoded(kind)) {
    decode(track, unit);
  } else if (video) {
    wants_key_ = true;
  }
  if (counts) return record(unit);
  if (video && choice.is_free(unit.time)) request_key_frame();
}

void user::on_first(const media::encoded_unit& unit) {
  if (unit.format->kind->kind == media::media_kind::kAudio) {
    if (!std::exchange(has_sound_, true)) told_.first_sound();
  } else if (!first_video_) {
    first_video_ = unit.time;
    told_.first_video(unit.format->width, unit.format->height);
  }
}

void user::record(const media::encoded_unit& unit) {
  const media::codec& kind = *unit.format->kind;
  if (kind.kind == media::media_kind::kVideo) {
    if (outputs_.video) outputs_.video(video_samples_.of(unit), kind);
    return;
  }
  if (keeps_sound_ && series_) series_->on_opus(unit);
}

void user::expect_sound(const media::format_ptr& format, media_time from) {
  keeps_sound_ = is_kept(*format->kind);
  series_->expect_sound(keeps_sound_ ? format : nullptr, from);
}

// Whether files take it as it came. Gaps that are to stay gaps are left by the encoder's way alone.
bool user::is_kept(const media::codec& kind) const {
  return series_ && plan_.record_sound && plan_.keep_opus &&
         plan_.longest_gap == media_time::zero() && std::strcmp(kind.name, "opus") == 0;
}

bool user::is_decoded(const media::codec& kind) const {
  const media::user_outputs& to = outputs_;
  if (kind.kind == media::media_kind::kVideo) {
    const bool shown = to.yuv && !no_application_pictures_;
    return to.h264 || shown || to.mix || (to.jpg && !no_stills_);
  }
  const bool to_files = series_ && plan_.record_sound && !is_kept(kind);
  return to.sound && (to_files || mix_ || frame_line_ || measures_volume_);
}

void user::decode(int track, const media::encoded_unit& unit) {
  if (graph_ended_) return;
  if (unit.format->kind->kind == media::media_kind::kVideo) {
    if (wants_key_ && !unit.key) return request_key_frame();
    wants_key_ = false;
  }
  if (!graph_) {
    const bool failed_before = graph_failed_ > media_time::zero();
    if (failed_before && unit.time - graph_failed_ < kThreadsPatience) return;
    const std::string shortage = load::shortage_of_threads(load::kGraphThreads);
    if (!shortage.empty()) {
      graph_failed_ = unit.time;
      wants_key_ = true;
      return told_.missing({"what is decoded", "", shortage});
    }
    source_ =
        std::make_unique<media::unit_source>([from = std::weak_ptr<media::media_feed>(feed_)] {
          if (const auto alive = from.lock()) alive->request_key_frame();
        });
    media::user_media decoded;
    decoded.source = source_->bin();
    make_graph(std::move(decoded));
    graph_->start(unit.time - kOldest);
  }
  source_->push(track, unit);
}

// Whoever left soon may not have sent one.
void user::tell_undecodable() {
  if (!serving_ || !series_ || !plan_.record_video || !first_video_) return;
  const media_time since = std::max(*first_video_, series_->started());
  if (series_->has_pictures() || finish_time_ - since < kFirstKeyFramePatience) return;
  told_.missing({"video", "", "no picture came that can be decoded by itself"});
}

void user::count_losses() {
  if (!feed_) return;
  const uint64_t lost = feed_->lost_packets();
  if (lost == lost_packets_) return;
  around_.files.count_lost_packets(uid_, lost - lost_packets_);
  if (std::exchange(lost_packets_, lost) > 0) return;
  told_.missing({"packets", "",
                 "they found no room here, because the machine was too busy, or gives "
                 "sockets too little memory (net.core.rmem_max)"});
}

void user::request_key_frame() {
  if (feed_) return feed_->request_key_frame();
  if (graph_) graph_->request_key_frame();
}

// ---- The service ---------------------------------------------------------------------------

void user::start() {
  if (!feed_) return graph_->start();
  feed_->start(media::media_feed::events{
      [this](int track, const media::encoded_unit& unit) { on_unit(track, unit); },
      [this](int track) {
        video_choice_.ended(track);
        sound_choice_.ended(track);
        if (source_) source_->end_track(track);
      }});
}

void user::start_service() {
  if (serving_.exchange(true)) return;
  if (series_) series_->start();
  if (plan_.video_out == video_frames::kH264) request_key_frame();
}

void user::stop_service(const std::string& why) {
  if (!serving_.exchange(false)) return;
  if (series_) series_->stop(why, media::now(), lateness_ + kStopPatience);
}

void user::abandon_files() {
  if (series_) series_->abandon();
}

void user::set_capture_interval(int seconds) {
  outputs_.jpg_interval = std::chrono::seconds(seconds);
  if (graph_) graph_->set_jpg_interval(outputs_.jpg_interval);
}

void user::leave_out(bool stills, bool application_pictures) {
  no_stills_ = stills;
  no_application_pictures_ = application_pictures;
  if (graph_) graph_->hold_jpgs(stills);
}

void user::finish(const std::string& why, std::function<void()> finished) {
  finish_reason_ = why;
  finished_ = std::move(finished);
  finish_time_ = media::now();
  if (!feed_) return drain();
  feed_->stop([this] {
    count_losses();
    if (feed_->left_unread()) told_.missing({"packets", "", kUnread});
    tell_undecodable();
    drain();
  });
}

// Nothing more comes in.
void user::drain() {
  drained_ = true;
  if (source_) source_->end();
  const bool decodes = graph_ && !graph_ended_ && !media_ended_;
  if (decodes) return graph_->finish(finish_reason_, source_ != nullptr);
  on_media_end();
}

void user::on_graph_finished(const std::string& why) {
  graph_ended_ = true;
  const bool by_itself = finish_reason_.empty();
  // What a decoder can't go on with is recorded all the same.
  if (feed_ && (by_itself || !drained_)) return;
  if (!by_itself) return on_media_end();
  media_ended_ = true;
  told_.ended(why);
}

void user::on_media_end() {
  media_ended_ = true;
  if (!series_) return posting_.post([this] { tell_finished(); });
  // Media that ended by itself ends where its last sound or picture does.
  media_time end = finish_time_;
  if (finish_reason_ == "end of media") {
    end = std::max(series_->last_video_end(), series_->last_heard().value_or(media_time::zero()));
  }
  series_->stop(finish_reason_, end, 0s);
}

// A copy, because what is called may destroy this.
void user::tell_finished() const {
  const std::function<void()> finished = finished_;
  finished();
}

void user::tick() {
  const std::string fault = feed_ && !media_ended_ ? feed_->fault() : "";
  if (!fault.empty()) told_.missing({"all", "", fault});
  count_losses();
  // Between the end of the sender and the end of what it sent nothing is missing.
  const bool draining = !finish_reason_.empty() && !media_ended_;
  if (series_ && !draining) series_->tick();
  if (frame_line_ && plan_.longest_gap == media_time::zero()) {
    frame_line_->fill_to(media::now() - lateness_ - kSoundPatience);
  }
}

void user::update_manifest() {
  if (series_) series_->update_manifest();
}

}  // namespace zelta::core_service
