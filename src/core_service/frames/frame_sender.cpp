// SPDX-License-Identifier: Apache-2.0
#include "core_service/frames/frame_sender.h"

#include <array>
#include <utility>

#include <gst/video/video.h>

namespace zelta::core_service {
namespace {

using namespace media;

// A buffer that is mapped, and therefore as it is, for as long as the payload is held.
class mapped_buffer {
 public:
  explicit mapped_buffer(GstBuffer* buffer)
      : buffer_(gst_buffer_ref(buffer)),
        mapped_(gst_buffer_map(buffer, &map_, GST_MAP_READ) != FALSE) {}
  ~mapped_buffer() {
    if (mapped_) gst_buffer_unmap(buffer_, &map_);
    gst_buffer_unref(buffer_);
  }
  mapped_buffer(const mapped_buffer&) = delete;
  mapped_buffer& operator=(const mapped_buffer&) = delete;

  const void* data() const { return map_.data; }
  size_t bytes() const { return mapped_ ? map_.size : 0; }

 private:
  GstBuffer* buffer_;
  GstMapInfo map_{};
  bool mapped_;
};

link::payload payload_of(const media_sample& sample) {
  auto mapped = std::make_shared<const mapped_buffer>(sample.buffer.get());
  const void* const data = mapped->data();
  const size_t bytes = mapped->bytes();
  return {std::move(mapped), data, bytes};
}

// The same for a picture.
class mapped_picture {
 public:
  // False when `sample` holds no picture that can be mapped.
  bool map(GstSample* sample) {
    GstVideoInfo info;
    mapped_ =
        gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) != FALSE &&
        gst_video_frame_map(&frame_, &info, gst_sample_get_buffer(sample), GST_MAP_READ) != FALSE;
    return mapped_;
  }
  mapped_picture() = default;
  ~mapped_picture() {
    if (mapped_) gst_video_frame_unmap(&frame_);
  }
  mapped_picture(const mapped_picture&) = delete;
  mapped_picture& operator=(const mapped_picture&) = delete;

  int width() const { return GST_VIDEO_FRAME_WIDTH(&frame_); }
  int height() const { return GST_VIDEO_FRAME_HEIGHT(&frame_); }
  size_t stride(unsigned plane) const {
    return static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame_, plane));
  }
  link::payload::span plane(unsigned plane, int rows) const {
    return {static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame_, plane)),
            stride(plane) * static_cast<size_t>(rows)};
  }

 private:
  GstVideoFrame frame_{};
  bool mapped_ = false;
};

uint64_t frame_ms(media_time time) {
  return static_cast<uint64_t>(utc_ms_of(time));
}

}  // namespace

frame_sender::frame_sender(frame_labels labels, engine_link& link) : link_(link) {
  h264_.uid = yuv_.uid = jpg_.uid = pcm_.uid = aac_.uid = labels.uid;
  h264_.avsync_type = yuv_.avsync_type = pcm_.avsync_type = aac_.avsync_type = labels.avsync_type;
  pcm_.bits = 16;
  pcm_.sample_rates = kSampleRate;
  aac_.bitrate = kAacFrameBitsPerSecond;
}

void frame_sender::send_h264(const media_sample& sample, int rotation) {
  h264_.frame_ms = frame_ms(sample.time);
  h264_.rotation = static_cast<uint16_t>(rotation);
  link_.send_coded(h264_, payload_of(sample), h264_.uid, sample.key);
  ++h264_.frame_num;
}

// The planes are laid back to back with the strides that they have. The reader takes the chroma
// planes to have half the rows, so an odd last row is left out.
void frame_sender::send_yuv(GstSample* picture, media_time time, int rotation) {
  auto mapped = std::make_shared<mapped_picture>();
  if (!mapped->map(picture)) return;
  const int rows = mapped->height() & ~1;
  yuv_.frame_ms = frame_ms(time);
  yuv_.rotation = static_cast<uint16_t>(rotation);
  yuv_.width = static_cast<uint16_t>(mapped->width());
  yuv_.height = static_cast<uint16_t>(rows);
  yuv_.ystride = static_cast<uint16_t>(mapped->stride(0));
  yuv_.ustride = static_cast<uint16_t>(mapped->stride(1));
  yuv_.vstride = static_cast<uint16_t>(mapped->stride(2));
  const std::array<link::payload::span, 3> planes{
      mapped->plane(0, rows), mapped->plane(1, rows / 2), mapped->plane(2, rows / 2)};
  link_.send_picture(yuv_, link::payload(std::move(mapped), planes));
}

void frame_sender::send_jpg(const media_sample& sample, int rotation) {
  jpg_.frame_ms = frame_ms(sample.time);
  jpg_.rotation = static_cast<uint16_t>(rotation);
  link_.send_picture(jpg_, payload_of(sample));
}

void frame_sender::send_pcm(media_time time, int channels, const int16_t* samples, size_t frames) {
  pcm_.frame_ms = frame_ms(time);
  pcm_.channels = static_cast<uint8_t>(channels);
  link_.send_sound(pcm_,
                   {nullptr, samples, frames * static_cast<size_t>(channels) * sizeof(int16_t)});
}

void frame_sender::send_aac(const media_sample& sample) {
  int channels = 1;
  gst_structure_get_int(gst_caps_get_structure(sample.caps.get(), 0), "channels", &channels);
  aac_.frame_ms = frame_ms(sample.time);
  aac_.channels = static_cast<uint32_t>(channels);
  link_.send_sound(aac_, payload_of(sample));
}

}  // namespace zelta::core_service
