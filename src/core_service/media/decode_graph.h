// SPDX-License-Identifier: Apache-2.0
// What is decoded of one user's units: the one place where a user's decoders are wired.
//
//     units ─▶ parse ─┬─▶ H.264 access units
//                     └─▶ decode ─▶ make plain ─┬─▶ pictures for the mix
//                                               ├─▶ pictures for the application
//                                               └─▶ JPEG, now and then
//     units ─▶ decode ─▶ sound                                    48 kHz, 16 bits
//
// Only the branches that are taken are built. Every track, that of a sender who starts again with a
// new SSRC included, gets a branch of its own. Every user has a pipeline of their own for sound,
// and one for pictures, so that an error of one costs nobody else anything, nor the other.
//
// Thread rule: all functions on the recorder's loop thread. What comes out comes on the threads
// that a consumer's form says.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/event_loop.h"
#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/media/codecs.h"
#include "core_service/media/consumer.h"
#include "core_service/media/encoded_unit.h"
#include "core_service/media/format_caps.h"
#include "core_service/media/gst.h"
#include "core_service/media/timeline.h"
#include "core_service/media/track_choice.h"

namespace zelta::core_service::media {

class decode_graph {
 public:
  struct events {
    // Any thread: a decoder needs a picture that can be decoded by itself.
    std::function<void()> need_key_frame;
    // Something can't be decoded. On the loop's thread, as all that follows.
    std::function<void(const missing_medium& what)> missing;
    // Something has come out, for the first time.
    std::function<void()> works;
    // After finish(): all has come out. The graph may be destroyed from inside the call, as from
    // that of the next.
    std::function<void()> finished;
    // Nothing comes out any more; with finish() or without.
    std::function<void(const std::string& why)> failed;
  };

  // `channels` of sound. `zero`: no unit is of a time before it.
  decode_graph(uint32_t uid, consumers to, int channels, media_time zero, base::event_loop& loop,
               events told);
  decode_graph(const decode_graph&) = delete;
  decode_graph& operator=(const decode_graph&) = delete;
  ~decode_graph();

  void push(int track, const encoded_unit& unit);
  // Nothing more comes of it: what it has comes out.
  void end_track(int track);
  // What was pushed comes out, within a bound; events::finished follows. That nothing came out is
  // told of tracks that have sent for `patience`.
  void finish(media_time patience);
  // Between two stills; a second at first.
  void set_still_interval(media_time interval) { still_interval_ = interval.count(); }

 private:
  struct track {
    const codec* kind;
    int number;
    GstElement* branch = nullptr;  // borrowed from the pipeline, as its source
    GstElement* source = nullptr;
    media_time since{};
    unit_samples samples;
    // It is told already that nothing of it comes out.
    std::atomic<bool> refused{false};
    std::atomic<bool> seen{false};
    std::atomic<picture_turn> turn{picture_turn{}};
    // Ends that have not seen the end of the stream.
    std::atomic<int> open_sinks{0};
    int64_t next_still = 0;

    // What pictures that are not turned yet are to be turned by, clockwise.
    int rotation() const { return turn.load().flipped ? 0 : turn.load().degrees; }
  };
  struct ended_track {
    media_time since;
    std::shared_ptr<track> was;
  };

  std::shared_ptr<track> add_track(int number, const encoded_unit& first);
  void remove_ended();
  static void turn(track& t, picture_turn by);
  std::string decode_queue() const;
  std::string video_branch(const codec& c) const;
  std::string sound_branch(const codec& c) const;
  void receive(const std::shared_ptr<track>& t, const char* name,
               std::function<void(GstSample*, const media_sample&)> take);
  void connect_sound(const std::shared_ptr<track>& t);
  void connect_video(const std::shared_ptr<track>& t);
  void pick_stills(const std::shared_ptr<track>& t);
  bool is_current(const track& t, media_time time);
  void leave_out(track& t, missing_medium what);
  void tell_if_silent(const track& t, media_time since) const;
  bool has_open_sinks() const;
  void on_end(track& t);
  void done();
  void fail(const std::string& why);

  const uint32_t uid_;
  const consumers to_;
  const int channels_;
  const media_time zero_;
  const events events_;
  const base::poster poster_;
  const element_ptr pipeline_;
  std::optional<bus_watch> watch_;
  std::atomic<int64_t> still_interval_{1'000'000'000};

  // Null: nothing of it can be decoded.
  std::map<int, std::shared_ptr<track>> tracks_;
  std::deque<ended_track> ended_;
  // The streaming threads ask them.
  std::mutex choice_lock_;
  track_choice current_video_;
  track_choice current_sound_;

  // Of a track that has sent since then something should have come out.
  media_time silent_since_{};
  std::atomic<bool> works_{false};
  bool finishing_ = false;
  bool finished_ = false;
  base::scoped_timer give_up_timer_;
};

}  // namespace zelta::core_service::media
