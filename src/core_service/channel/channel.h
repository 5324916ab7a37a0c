// SPDX-License-Identifier: Apache-2.0
// A channel: where users come from and what they send.
//
// One file a backend. All functions and callbacks are for the recorder's loop thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "core_service/channel/media_feed.h"
#include "core_service/media/gst.h"
#include "core_service/media/missing_medium.h"
#include "core_service/media/timeline.h"
#include "core_service/rtp/settings.h"

namespace zelta::core_service {

// What a user sends: by a source, or by a feed.
struct user_media {
  // A bin with one source pad a track, encoded media with its codec in the caps, paced in real
  // time.
  media::element_ptr source;
  // Of the bin: every pad is there. Otherwise pads are added while it runs, and its "no-more-pads"
  // signal tells when that was all.
  bool complete = false;
  std::shared_ptr<media_feed> feed;
  // A medium that can't come is not waited for.
  bool may_have_video = true;
  bool may_have_sound = true;
  // How much later than captured media comes out.
  media::media_time lateness{};
};

class channel_listener {
 public:
  virtual void on_channel_joined() = 0;
  virtual void on_channel_failed(const std::string& why) = 0;
  // `media` opens what the user sends, once and from inside the call: whoever is turned away costs
  // nothing. It may find out only now that there is nothing to receive, says so by on_missing(),
  // and gives neither source nor feed; the user is then none.
  virtual void on_user_in(uint32_t uid, const std::function<user_media()>& media) = 0;
  virtual void on_user_out(uint32_t uid) = 0;
  // What can't be recorded of somebody, who may not be in the channel; uid 0: of something that is
  // nobody's.
  virtual void on_missing(uint32_t uid, const missing_medium& what) = 0;
  virtual void on_channel_interrupted() = 0;
  virtual void on_channel_lost() = 0;

 protected:
  ~channel_listener() = default;
};

class channel {
 public:
  virtual ~channel() = default;
  // on_channel_joined or on_channel_failed follows, at the earliest in the loop's next round.
  virtual void join() = 0;
  // No callback comes after it.
  virtual void leave() = 0;
  // For a user who was turned away, or let go: if they are still there, on_user_in() comes once
  // more, from inside the call; else false.
  virtual bool offer_again(uint32_t uid) = 0;
  // How long what came has waited before it was taken in hand: the longest since the last call.
  virtual media::media_time take_behind() { return {}; }
};

struct channel_place {
  std::string server;  // "test:…", "dir:…"
  std::string channel_id;
  std::string logdir;
  rtp::settings rtp;
};

// Null, with `error` saying what is wrong and what would be right. Loop and listener are borrowed
// and must outlive the channel.
std::unique_ptr<channel> make_channel(const channel_place& place, base::event_loop& loop,
                                      channel_listener& listener, std::string& error);

// The backends, for make_channel.
std::unique_ptr<channel> make_test_channel(const std::string& script, base::event_loop& loop,
                                           channel_listener& listener, std::string& error);
std::unique_ptr<channel> make_dir_channel(const std::string& root, const channel_place& place,
                                          base::event_loop& loop, channel_listener& listener,
                                          std::string& error);

}  // namespace zelta::core_service
