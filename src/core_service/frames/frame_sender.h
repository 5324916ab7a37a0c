// SPDX-License-Identifier: Apache-2.0
// Makes the packets of the frames that the application gets.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "core_service/engine/engine_link.h"
#include "core_service/media/sound_line.h"
#include "core_service/media/timeline.h"
#include "protocol/ipc_protocol.h"

namespace zelta::core_service {

// What the frames' packets say besides the media.
struct frame_labels {
  uint32_t uid;  // 0: the mix
  int32_t avsync_type;
};

// Frames' times are media times in milliseconds since 1970 UTC, as in the manifest. The link is
// borrowed. Every kind may be sent by a thread of its own.
class frame_sender {
 public:
  frame_sender(frame_labels labels, engine_link& link);

  void send_h264(const media::media_sample& sample, int rotation);
  // An I420 picture.
  void send_yuv(GstSample* picture, media::media_time time, int rotation);
  void send_jpg(const media::media_sample& sample, int rotation);
  void send_pcm(media::media_time time, int channels, const int16_t* samples, size_t frames);
  // One ADTS frame.
  void send_aac(const media::media_sample& sample);

 private:
  engine_link& link_;
  // What all frames of a kind have in common; their payloads go beside them.
  protocol::h264_frame2 h264_;
  protocol::yuv_frame2 yuv_;
  protocol::jpg_frame jpg_;
  protocol::pcm_frame pcm_;
  protocol::aac_frame aac_;
};

constexpr int kAacFrameBitsPerSecond = 64'000;

// A stretch of a sound line that goes to the application as PCM, in blocks of 20 ms.
class pcm_sink : public media::sound_sink {
 public:
  pcm_sink(std::shared_ptr<frame_sender> to, int channels)
      : to_(std::move(to)), channels_(channels) {}
  void on_sound(media::media_time time, const int16_t* samples, size_t frames) override {
    to_->send_pcm(time, channels_, samples, frames);
  }
  void on_sound_end() override {}

 private:
  const std::shared_ptr<frame_sender> to_;
  const int channels_;
};

}  // namespace zelta::core_service
