// SPDX-License-Identifier: Apache-2.0
#include "core_service/frames/frames_consumer.h"

#include <string>
#include <utility>

#include "core_service/media/sound_encoder.h"

namespace zelta::core_service {

using media::form;

frames_consumer::frames_consumer(uint32_t uid, const recording_plan& plan, engine_link& link,
                                 base::logger log)
    : plan_(plan),
      log_(std::move(log)),
      to_(std::make_shared<frame_sender>(frame_labels{uid, plan.avsync_type}, link)) {
  if (!takes(form::kSound)) return;
  line_.emplace(static_cast<size_t>(plan_.channels), plan_.longest_gap, media::kFrameBlock);
}

bool frames_consumer::takes(form what) const {
  switch (what) {
    case form::kAccessUnits:
      return plan_.take_video && plan_.video_out == video_frames::kH264;
    case form::kPictures:
      return plan_.take_video && plan_.video_out == video_frames::kYuv;
    case form::kStills:
      return plan_.take_video && plan_.jpg_packets;
    case form::kSound:
      return plan_.take_sound &&
             (plan_.sound_out == sound_frames::kPcm || plan_.sound_out == sound_frames::kAac);
    default:
      return false;
  }
}

bool frames_consumer::wants(form what) const {
  if (what == form::kStills && no_stills_) return false;
  if (what == form::kPictures && no_pictures_) return false;
  return takes(what);
}

void frames_consumer::leave_out(form what, bool left_out) {
  if (what == form::kStills) no_stills_ = left_out;
  if (what == form::kPictures) no_pictures_ = left_out;
}

void frames_consumer::on_access_unit(const media::media_sample& sample, int rotation) {
  if (serves_) to_->send_h264(sample, rotation);
}

void frames_consumer::on_picture(GstSample* picture, media::media_time time, int rotation) {
  if (serves_) to_->send_yuv(picture, time, rotation);
}

void frames_consumer::on_still(const media::media_sample& sample, int rotation) {
  if (serves_) to_->send_jpg(sample, rotation);
}

void frames_consumer::on_sound(media::media_time time, const int16_t* samples, size_t frames) {
  if (!serves_) return;
  if (!line_->position()) start_sound(time);
  line_->push(time, samples, frames);
}

void frames_consumer::start_sound(media::media_time time) {
  if (plan_.sound_out == sound_frames::kPcm) {
    return line_->start(time, std::make_shared<pcm_sink>(to_, plan_.channels));
  }
  std::string error;
  auto encoder = media::sound_encoder::make(
      {media::sound_codec::kAdts, plan_.channels, kAacFrameBitsPerSecond},
      {[to = to_](const media::media_sample& sample) { to->send_aac(sample); }, nullptr}, error);
  if (encoder) return line_->start(time, std::move(encoder));
  log_.error("no AAC frames: " + error);
}

void frames_consumer::fill_sound(media::media_time until) {
  if (line_ && plan_.longest_gap == media::media_time::zero()) line_->fill_to(until);
}

}  // namespace zelta::core_service
