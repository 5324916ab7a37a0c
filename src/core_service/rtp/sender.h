// SPDX-License-Identifier: Apache-2.0
// One user who sends packets, whichever way these come. On the packet thread, but where it says so.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/encoded_unit.h"
#include "core_service/media/timeline.h"
#include "core_service/media/user_text.h"
#include "core_service/rtp/payload.h"

namespace zelta::core_service::rtp {

class sender {
 public:
  // A stream is known by its number, which is never used twice; its first unit begins it.
  struct events {
    std::function<void(int number, const payload& of, media::encoded_unit&& unit)> unit;
    // It has said goodbye, or has been silent for long.
    std::function<void(int number)> gone;
    // Besides media: what the user has written, and what of it can't be kept.
    std::function<void(media::user_text&& what)> text;
    std::function<void(missing_medium&& what)> missing;
  };

  virtual ~sender() = default;
  virtual void start() = 0;
  // What has come is read before, up to a moment; false: there was more.
  virtual bool stop(media::media_time read_until) = 0;
  // Asks for a picture that needs no other, of every source of pictures.
  virtual void request_key_frames() = 0;
  // Any thread: packets for which there was no room here; known a second later, or after stop().
  virtual uint64_t dropped() const { return 0; }
  // Any thread: what is wrong with what comes; empty: nothing is known of.
  virtual std::string fault() const { return ""; }
};

}  // namespace zelta::core_service::rtp
