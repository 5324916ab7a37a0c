// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/frame_sender.h"

#include <gst/video/video.h>

namespace zelta::core_service::media {
namespace {

class mapped_buffer {
 public:
  explicit mapped_buffer(GstBuffer* buffer)
      : buffer_(buffer), mapped_(gst_buffer_map(buffer, &map_, GST_MAP_READ) != FALSE) {}
  ~mapped_buffer() {
    if (mapped_) gst_buffer_unmap(buffer_, &map_);
  }
  mapped_buffer(const mapped_buffer&) = delete;
  mapped_buffer& operator=(const mapped_buffer&) = delete;

  void assign_to(std::string& out) const {
    if (!mapped_) return out.clear();
    out.assign(reinterpret_cast<const char*>(map_.data), map_.size);
  }

 private:
  GstBuffer* buffer_;
  GstMapInfo map_{};
  bool mapped_;
};

uint64_t frame_ms(media_time time) {
  return static_cast<uint64_t>(utc_ms_of(time));
}

void append_plane(std::string& out, const GstVideoFrame& frame, unsigned plane, int rows) {
  const auto* const data = static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
  const auto bytes =
      static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane)) * static_cast<size_t>(rows);
  out.append(data, bytes);
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
  mapped_buffer(sample.buffer.get()).assign_to(h264_.data);
  link_.send_coded(h264_, h264_.uid, sample.key);
  ++h264_.frame_num;
}

// The planes are laid back to back with the strides that they have. The reader takes the chroma
// planes to have half the rows, so an odd last row is left out.
void frame_sender::send_yuv(GstSample* picture, media_time time, int rotation) {
  GstVideoInfo info;
  GstVideoFrame frame;
  if (gst_video_info_from_caps(&info, gst_sample_get_caps(picture)) == FALSE ||
      gst_video_frame_map(&frame, &info, gst_sample_get_buffer(picture), GST_MAP_READ) == FALSE) {
    return;
  }
  const int rows = GST_VIDEO_FRAME_HEIGHT(&frame) & ~1;
  const auto stride = [&frame](unsigned plane) {
    return static_cast<uint16_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane));
  };
  yuv_.frame_ms = frame_ms(time);
  yuv_.rotation = static_cast<uint16_t>(rotation);
  yuv_.width = static_cast<uint16_t>(GST_VIDEO_FRAME_WIDTH(&frame));
  yuv_.height = static_cast<uint16_t>(rows);
  yuv_.ystride = stride(0);
  yuv_.ustride = stride(1);
  yuv_.vstride = stride(2);
  yuv_.data.clear();
  append_plane(yuv_.data, frame, 0, rows);
  append_plane(yuv_.data, frame, 1, rows / 2);
  append_plane(yuv_.data, frame, 2, rows / 2);
  gst_video_frame_unmap(&frame);
  link_.send_picture(yuv_);
}

void frame_sender::send_jpg(const media_sample& sample, int rotation) {
  jpg_.frame_ms = frame_ms(sample.time);
  jpg_.rotation = static_cast<uint16_t>(rotation);
  mapped_buffer(sample.buffer.get()).assign_to(jpg_.data);
  link_.send_picture(jpg_);
}

void frame_sender::send_pcm(media_time time, int channels, const int16_t* samples, size_t frames) {
  pcm_.frame_ms = frame_ms(time);
  pcm_.channels = static_cast<uint8_t>(channels);
  pcm_.data.assign(reinterpret_cast<const char*>(samples),
                   frames * static_cast<size_t>(channels) * sizeof(int16_t));
  link_.send_sound(pcm_);
}

void frame_sender::send_aac(const media_sample& sample) {
  int channels = 1;
  gst_structure_get_int(gst_caps_get_structure(sample.caps.get(), 0), "channels", &channels);
  aac_.frame_ms = frame_ms(sample.time);
  aac_.channels = static_cast<uint32_t>(channels);
  mapped_buffer(sample.buffer.get()).assign_to(aac_.data);
  link_.send_sound(aac_);
}

}  // namespace zelta::core_service::media
