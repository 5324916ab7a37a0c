// SPDX-License-Identifier: Apache-2.0
// Where one user's media enters the mix.
#pragma once

#include <cstddef>
#include <cstdint>

#include <gst/gst.h>

#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

// Any thread; one thread at a time a kind. Media of a user who has left the mix is ignored.
class mix_input {
 public:
  virtual ~mix_input() = default;
  // A decoded picture.
  virtual void on_picture(GstSample* picture, media_time time) = 0;
  // Interleaved samples, as many channels as the mix has.
  virtual void on_sound(media_time time, const int16_t* samples, size_t frames) = 0;
};

}  // namespace zelta::core_service::media
