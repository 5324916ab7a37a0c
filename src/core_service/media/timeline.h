// SPDX-License-Identifier: Apache-2.0
// The one timeline that all media of a recording stand on: the system's monotonic clock.
#pragma once

#include <cstdint>

#include <gst/gst.h>

#include "core_service/media/gst.h"
#include "core_service/media/media_time.h"

namespace zelta::core_service::media {

media_time now();

// Milliseconds since 1970 UTC. The two clocks are laid on each other once a process, so that a
// step of the wall clock during a call doesn't tear the files of two users apart.
int64_t utc_ms_of(media_time time);

// One buffer of a stream, placed on the timeline.
struct media_sample {
  buffer_ptr buffer;
  caps_ptr caps;
  media_time time{};         // of presentation
  media_time decode_time{};  // equal to `time` where the stream doesn't say
  media_time duration{};     // 0: unknown
  bool key = false;          // needs no other picture

  media_time end() const { return time + duration; }
};

// Places what an appsink of `pipeline` gave. False when it has no time.
bool take_sample(GstSample* sample, GstElement* pipeline, media_sample& out);

}  // namespace zelta::core_service::media
