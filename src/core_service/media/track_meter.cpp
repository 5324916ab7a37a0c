// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/track_meter.h"

#include <algorithm>
#include <utility>

#include "core_service/media/gst.h"

namespace zelta::core_service::media {

GstClockTime running_time(GstPad* pad, const GstBuffer* buffer) {
  const GstClockTime time =
      GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : GST_BUFFER_DTS(buffer);
  const event_ptr sticky(gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0));
  if (!sticky || !GST_CLOCK_TIME_IS_VALID(time)) return GST_CLOCK_TIME_NONE;
  const GstSegment* segment = nullptr;
  gst_event_parse_segment(sticky.get(), &segment);
  return gst_segment_to_running_time(segment, GST_FORMAT_TIME, time);
}

track_meter::track_meter(GstPad* pad, std::function<void(const reading&)> on_first)
    : on_first_(std::move(on_first)) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &track_meter::on_buffer, this, nullptr);
}

track_meter::reading track_meter::read() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return reading_;
}

GstPadProbeReturn track_meter::on_buffer(GstPad* pad, GstPadProbeInfo* info, gpointer self) {
  static_cast<track_meter*>(self)->count(pad, GST_PAD_PROBE_INFO_BUFFER(info));
  return GST_PAD_PROBE_OK;
}

void track_meter::count(GstPad* pad, GstBuffer* buffer) {
  const GstClockTime start = running_time(pad, buffer);
  if (!GST_CLOCK_TIME_IS_VALID(start)) return;
  const GstClockTime duration =
      GST_BUFFER_DURATION_IS_VALID(buffer) ? GST_BUFFER_DURATION(buffer) : 0;
  reading now;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (reading_.buffers == 0) {
      const caps_ptr caps(gst_pad_get_current_caps(pad));
      if (caps) {
        const GstStructure* const fields = gst_caps_get_structure(caps.get(), 0);
        gst_structure_get_int(fields, "width", &reading_.width);
        gst_structure_get_int(fields, "height", &reading_.height);
      }
      reading_.first = start;
    }
    reading_.first = std::min(reading_.first, start);
    reading_.end = std::max(reading_.end, start + duration);
    ++reading_.buffers;
    reading_.bytes += gst_buffer_get_size(buffer);
    now = reading_;
  }
  if (now.buffers == 1 && on_first_) on_first_(now);
}

}  // namespace zelta::core_service::media
