// SPDX-License-Identifier: Apache-2.0
// A user's media as encoded units, ready for files, before anything decodes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/encoded_unit.h"
#include "core_service/media/timeline.h"
#include "core_service/media/user_text.h"

namespace zelta::core_service::media {

// Which kinds of media.
struct kinds {
  bool video = true;
  bool sound = true;
};

// All of it on the loop's thread, its destruction too, but where it says so.
class media_feed {
 public:
  struct events {
    // What can't come is not waited for. Before any unit, and maybe from inside start(), where it
    // can be told beforehand.
    std::function<void(kinds may_come)> kinds_known;
    // Sound that will probably come. As kinds_known().
    std::function<void(const format_ptr& sound)> sound_expected;
    // A track is known by its number, which is never used twice. Its first unit begins it.
    std::function<void(int track, const encoded_unit& unit)> unit;
    // Nothing more comes of the track.
    std::function<void(int track)> track_ended;
    // They have written something.
    std::function<void(const user_text& what)> text;
    // Something can't be recorded; what else there is, is.
    std::function<void(const missing_medium& what)> missing;
    // Nothing more comes, because the media has ended by itself; stop() is to follow.
    std::function<void(const std::string& why)> over;
  };

  virtual ~media_feed() = default;
  // How much later than captured media comes out.
  virtual media_time lateness() const = 0;
  // So many threads it will start.
  virtual size_t threads() const { return 0; }
  // Media comes from here on, and no unit from inside the call. What isn't `taken` needn't come.
  virtual void start(kinds taken, events told) = 0;
  // What has been received by now comes out, then `stopped` follows, after which nothing comes. It
  // doesn't wait: many may be stopped at once. `stopped` may destroy the feed.
  virtual void stop(std::function<void()> stopped) = 0;
  // Any thread: asks for a picture that needs no other.
  virtual void request_key_frame() = 0;
  // Packets, or units, that have come and found no room here, because the machine was too busy.
  virtual uint64_t lost_packets() const { return 0; }
  // And how that comes.
  virtual std::string why_lost() const { return ""; }
  // After stop(): some were not even read, because there were so many.
  virtual bool left_unread() const { return false; }
  // What is wrong with what comes, once; else empty.
  virtual std::string fault() { return ""; }
};

// Opens what a user sends; null: there is nothing to receive.
using open_media = std::function<std::shared_ptr<media_feed>()>;

}  // namespace zelta::core_service::media
