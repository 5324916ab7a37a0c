// SPDX-License-Identifier: Apache-2.0
// Gives pictures that are sent out of their order of presentation their own times back.
//
// The jitter buffer lets no time go back: of an H.264 sender with B-frames it gives every picture
// the time of the latest one before it, and a player would stutter.
#pragma once

#include <gst/gst.h>

namespace zelta::core_service::rtp {

// Watches the packets that leave `pad`, whose RTP clock has `clock_rate` ticks a second.
void restore_times(GstPad* pad, int clock_rate);

}  // namespace zelta::core_service::rtp
