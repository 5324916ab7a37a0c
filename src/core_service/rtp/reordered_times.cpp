// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/reordered_times.h"

#include <cstdint>
#include <memory>

#include <gst/rtp/gstrtpbuffer.h>

#include "core_service/media/gst.h"

namespace zelta::core_service::rtp {
namespace {

// The latest picture so far: its time is right.
struct latest_picture {
  int64_t clock_rate;
  bool seen = false;
  uint32_t rtp_time = 0;
  GstClockTime time = 0;
};

GstPadProbeReturn restore(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer context) {
  auto& latest = static_cast<media::carried<latest_picture>*>(context)->get();
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  GstRTPBuffer packet = GST_RTP_BUFFER_INIT;
  media::buffer_times times = media::times_of(buffer);
  if (!GST_CLOCK_TIME_IS_VALID(times.pts) ||
      gst_rtp_buffer_map(buffer, GST_MAP_READ, &packet) == FALSE) {
    return GST_PAD_PROBE_OK;
  }
  const uint32_t rtp_time = gst_rtp_buffer_get_timestamp(&packet);
  gst_rtp_buffer_unmap(&packet);
  // The counter wraps, so what matters is which way round is shorter.
  const auto behind = static_cast<int32_t>(latest.rtp_time - rtp_time);
  // More than a second is a new beginning, not an order.
  if (!latest.seen || behind <= 0 || behind > latest.clock_rate) {
    latest.seen = true;
    latest.rtp_time = rtp_time;
    latest.time = times.pts;
    return GST_PAD_PROBE_OK;
  }
  const auto earlier = static_cast<GstClockTime>(behind * int64_t{GST_SECOND} / latest.clock_rate);
  buffer = gst_buffer_make_writable(buffer);
  times.pts = latest.time > earlier ? latest.time - earlier : 0;
  media::set_times(buffer, times);
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return GST_PAD_PROBE_OK;
}

}  // namespace

void restore_times(GstPad* pad, int clock_rate) {
  using context = media::carried<latest_picture>;
  auto state = std::make_unique<context>(latest_picture{clock_rate});
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, restore, state.release(), [](gpointer done) {
    const std::unique_ptr<context> owner(static_cast<context*>(done));
  });
}

}  // namespace zelta::core_service::rtp
