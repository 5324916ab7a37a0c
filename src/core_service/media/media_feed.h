// SPDX-License-Identifier: Apache-2.0
// A user's media as encoded units, ready for files, before anything decodes it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core_service/media/encoded_unit.h"
#include "core_service/media/gst.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

// All of it on the loop's thread, but where it says so.
class media_feed {
 public:
  struct events {
    // A track is known by its number, which is never used twice. Its first unit begins it.
    std::function<void(int track, const encoded_unit& unit)> unit;
    // Nothing more comes of the track.
    std::function<void(int track)> ended;
  };

  virtual ~media_feed() = default;
  // Of the sound that will probably come, where that can be told beforehand; null: it can't.
  virtual format_ptr likely_sound() const = 0;
  // Media comes from here on. Nothing comes from inside the call.
  virtual void start(events told) = 0;
  // What has been received by now comes out, then `stopped` follows, after which nothing comes. It
  // doesn't wait: many may be stopped at once. `stopped` may destroy the feed.
  virtual void stop(std::function<void()> stopped) = 0;
  // Any thread: asks for a picture that needs no other.
  virtual void request_key_frame() = 0;
  // Packets that have come and found no room here, because the machine was too busy.
  virtual uint64_t lost_packets() const = 0;
  // After stop(): some were not even read, because there were so many.
  virtual bool left_unread() const = 0;
  // What is wrong with what comes, once; else empty.
  virtual std::string fault() = 0;
};

// What a user sends: by a source, or by a feed.
struct user_media {
  // A bin with one source pad a track, encoded media with its codec in the caps, paced in real
  // time.
  element_ptr source;
  // Of the bin: every pad is there. Otherwise pads are added while it runs, and its "no-more-pads"
  // signal tells when that was all.
  bool complete = false;
  std::shared_ptr<media_feed> feed;
  // A medium that can't come is not waited for.
  bool may_have_video = true;
  bool may_have_sound = true;
  // How much later than captured media comes out.
  media_time lateness{};
};

}  // namespace zelta::core_service::media
