// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/frame_sink.h"

#include <algorithm>
#include <cstring>

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include "core_service/media/gst.h"
#include "core_service/media/track_meter.h"
#include "protocol/ipc_protocol.h"

namespace zelta::core_service::media {
namespace {

constexpr GstClockTime kNanosecondsPerMs = 1'000'000;
constexpr int kAacBitsPerSecond = 64'000;

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

const GstStructure* caps_of(GstSample* sample) {
  return gst_caps_get_structure(gst_sample_get_caps(sample), 0);
}

int int_field(const GstStructure* fields, const char* name) {
  int value = 0;
  gst_structure_get_int(fields, name, &value);
  return value;
}

void fill(protocol::pcm_frame& packet, GstSample* sample, uint32_t /*number*/) {
  const GstStructure* const fields = caps_of(sample);
  packet.channels = static_cast<uint8_t>(int_field(fields, "channels"));
  packet.bits = 16;
  packet.sample_rates = static_cast<uint32_t>(int_field(fields, "rate"));
  mapped_buffer(gst_sample_get_buffer(sample)).assign_to(packet.data);
}

void fill(protocol::aac_frame& packet, GstSample* sample, uint32_t /*number*/) {
  packet.channels = static_cast<uint32_t>(int_field(caps_of(sample), "channels"));
  packet.bitrate = kAacBitsPerSecond;
  mapped_buffer(gst_sample_get_buffer(sample)).assign_to(packet.data);
}

void fill(protocol::h264_frame2& packet, GstSample* sample, uint32_t number) {
  packet.rotation = 0;
  packet.frame_num = number;
  mapped_buffer(gst_sample_get_buffer(sample)).assign_to(packet.data);
}

void append_plane(std::string& out, const GstVideoFrame& frame, unsigned plane, int rows) {
  const auto* const data = static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
  const auto bytes =
      static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane)) * static_cast<size_t>(rows);
  out.append(data, bytes);
}

// The planes are laid back to back with the strides that they have. The reader takes the chroma
// planes to have half the rows, so an odd last row is left out.
void fill(protocol::yuv_frame2& packet, GstSample* sample, uint32_t /*number*/) {
  packet.data.clear();
  GstVideoInfo info;
  GstVideoFrame frame;
  if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) == FALSE ||
      gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ) == FALSE) {
    return;
  }
  const int rows = GST_VIDEO_FRAME_HEIGHT(&frame) & ~1;
  const auto stride = [&frame](unsigned plane) {
    return static_cast<uint16_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane));
  };
  packet.rotation = 0;
  packet.width = static_cast<uint16_t>(GST_VIDEO_FRAME_WIDTH(&frame));
  packet.height = static_cast<uint16_t>(rows);
  packet.ystride = stride(0);
  packet.ustride = stride(1);
  packet.vstride = stride(2);
  append_plane(packet.data, frame, 0, rows);
  append_plane(packet.data, frame, 1, rows / 2);
  append_plane(packet.data, frame, 2, rows / 2);
  gst_video_frame_unmap(&frame);
}

template <class Packet>
class packet_sink : public frame_sink {
 public:
  packet_sink(GstElement* appsink, frame_labels labels, engine_link& link) : link_(link) {
    packet_.uid = labels.uid;
    packet_.avsync_type = labels.avsync_type;
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = [](GstAppSink* sink, gpointer self) {
      return static_cast<packet_sink*>(self)->on_sample(sink);
    };
    gst_app_sink_set_callbacks(GST_APP_SINK(appsink), &callbacks, this, nullptr);
  }

 private:
  GstFlowReturn on_sample(GstAppSink* sink) {
    const sample_ptr sample(gst_app_sink_pull_sample(sink));
    if (!sample) return GST_FLOW_EOS;
    const GstClockTime time =
        gst_segment_to_running_time(gst_sample_get_segment(sample.get()), GST_FORMAT_TIME,
                                    GST_BUFFER_PTS(gst_sample_get_buffer(sample.get())));
    packet_.frame_ms = GST_CLOCK_TIME_IS_VALID(time) ? time / kNanosecondsPerMs : 0;
    fill(packet_, sample.get(), number_++);
    link_.send_frame(packet_);
    return GST_FLOW_OK;
  }

  engine_link& link_;
  // One for all frames: the storage of its payload is used again.
  Packet packet_;
  uint32_t number_ = 0;
};

}  // namespace

std::unique_ptr<frame_sink> frame_sink::make(frame_kind kind, GstElement* appsink,
                                             frame_labels labels, engine_link& link) {
  switch (kind) {
    case frame_kind::kPcm:
      return std::make_unique<packet_sink<protocol::pcm_frame>>(appsink, labels, link);
    case frame_kind::kAac:
      return std::make_unique<packet_sink<protocol::aac_frame>>(appsink, labels, link);
    case frame_kind::kH264:
      return std::make_unique<packet_sink<protocol::h264_frame2>>(appsink, labels, link);
    case frame_kind::kYuv:
      return std::make_unique<packet_sink<protocol::yuv_frame2>>(appsink, labels, link);
  }
  return nullptr;
}

std::string frame_branch(frame_kind kind) {
  const std::string sink = " ! appsink name=frames sync=false async=false max-buffers=8";
  const std::string samples =
      "audioconvert ! audioresample ! audiorate ! "
      "audio/x-raw,rate=48000,channels=1,layout=interleaved ! ";
  switch (kind) {
    case frame_kind::kPcm:
      return samples +
             "audioconvert ! audio/x-raw,format=S16LE ! audiobuffersplit "
             "output-buffer-duration=1/50" +
             sink;
    case frame_kind::kAac:
      return samples + "audioconvert ! avenc_aac bitrate=" + std::to_string(kAacBitsPerSecond) +
             " ! aacparse ! audio/mpeg,stream-format=adts,framed=true" + sink;
    case frame_kind::kH264:
      return "h264parse config-interval=-1 ! "
             "video/x-h264,stream-format=byte-stream,alignment=au" +
             sink;
    case frame_kind::kYuv:
      return "videoconvert ! video/x-raw,format=I420" + sink;
  }
  return "";
}

}  // namespace zelta::core_service::media
