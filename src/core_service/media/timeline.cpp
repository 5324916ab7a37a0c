// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/timeline.h"

#include "base/clocks.h"

namespace zelta::core_service::media {
namespace {

media_time utc_of_clock_zero() {
  return std::chrono::milliseconds(base::utc_ms()) - now();
}

// Signed, because decoding starts before presentation where pictures are reordered.
bool place(const GstSegment* segment, GstClockTime at, GstElement* pipeline, media_time& out) {
  if (!GST_CLOCK_TIME_IS_VALID(at)) return false;
  guint64 running = 0;
  const int sign = gst_segment_to_running_time_full(segment, GST_FORMAT_TIME, at, &running);
  if (sign == 0) return false;
  out = media_time(static_cast<int64_t>(running) * sign) +
        media_time(static_cast<int64_t>(gst_element_get_base_time(pipeline)));
  return true;
}

}  // namespace

media_time now() {
  return std::chrono::steady_clock::now().time_since_epoch();
}

int64_t utc_ms_of(media_time time) {
  static const media_time zero = utc_of_clock_zero();
  return std::chrono::duration_cast<std::chrono::milliseconds>(time + zero).count();
}

bool take_sample(GstSample* sample, GstElement* pipeline, media_sample& out) {
  GstBuffer* const buffer = gst_sample_get_buffer(sample);
  const GstSegment* const segment = gst_sample_get_segment(sample);
  const buffer_times times = times_of(buffer);
  const bool has_decode_time = place(segment, times.dts, pipeline, out.decode_time);
  if (!place(segment, times.pts, pipeline, out.time)) {
    if (!has_decode_time) return false;
    out.time = out.decode_time;
  }
  if (!has_decode_time) out.decode_time = out.time;
  out.duration = media_time(
      GST_CLOCK_TIME_IS_VALID(times.duration) ? static_cast<int64_t>(times.duration) : 0);
  out.key = is_key(buffer);
  out.buffer.reset(gst_buffer_ref(buffer));
  out.caps.reset(gst_caps_ref(gst_sample_get_caps(sample)));
  return true;
}

}  // namespace zelta::core_service::media
