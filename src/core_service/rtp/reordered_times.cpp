// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/reordered_times.h"

#include <cstdint>
#include <memory>

#include <gst/rtp/gstrtpbuffer.h>

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
  auto& latest = *static_cast<latest_picture*>(context);
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  GstRTPBuffer packet = GST_RTP_BUFFER_INIT;
  if (!GST_BUFFER_PTS_IS_VALID(buffer) ||
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
    latest.time = GST_BUFFER_PTS(buffer);
    return GST_PAD_PROBE_OK;
  }
  const auto earlier = static_cast<GstClockTime>(behind * int64_t{GST_SECOND} / latest.clock_rate);
  buffer = gst_buffer_make_writable(buffer);
  GST_BUFFER_PTS(buffer) = latest.time > earlier ? latest.time - earlier : 0;
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return GST_PAD_PROBE_OK;
}

}  // namespace

void restore_times(GstPad* pad, int clock_rate) {
  auto state = std::make_unique<latest_picture>();
  state->clock_rate = clock_rate;
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, restore, state.release(), [](gpointer done) {
    const std::unique_ptr<latest_picture> owner(static_cast<latest_picture*>(done));
  });
}

}  // namespace zelta::core_service::rtp
