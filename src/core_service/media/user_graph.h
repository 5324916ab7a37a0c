// SPDX-License-Identifier: Apache-2.0
// What comes from one user: the one place where the graph of a user is wired.
//
//     source ─▶ parse ─┬─▶ encoded video                          as it came
//                      ├─▶ H.264 access units
//                      └─▶ decode ─▶ make plain ─┬─▶ pictures for the mix
//                                                ├─▶ pictures for the application
//                                                └─▶ JPEG, now and then
//     source ─▶ parse ─▶ decode ─▶ sound                          48 kHz, 16 bits
//
// Only the branches that are taken are built. Every track that a source turns out to have, a sender
// that starts again with a new SSRC included, gets a branch of its own. Every user has a pipeline
// of their own, so that an error of one user's media costs nobody else anything.
//
// Thread rule: all functions on the recorder's loop thread. What comes out comes on the threads
// that a consumer's form says.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/scoped_timer.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/media/codecs.h"
#include "core_service/media/consumer.h"
#include "core_service/media/gst.h"
#include "core_service/media/media_feed.h"
#include "core_service/media/timeline.h"
#include "core_service/media/track_choice.h"

namespace zelta::core_service::media {

class user_graph {
 public:
  // All on the loop's thread.
  struct events {
    std::function<void(int width, int height)> first_video;
    std::function<void()> first_sound;
    // No further tracks than these will come.
    std::function<void(bool sound, bool video)> tracks_known;
    // Something can't be recorded or delivered; what else there is, is.
    std::function<void(const missing_medium& what)> missing;
    // All media has come out. The graph may be destroyed from inside the call.
    std::function<void(const std::string& why)> finished;
  };

  // `channels` of sound.
  user_graph(uint32_t uid, user_media from, consumers to, int channels, base::event_loop& loop,
             events told, base::logger log);
  user_graph(const user_graph&) = delete;
  user_graph& operator=(const user_graph&) = delete;
  ~user_graph();

  // Whether any media of the kind has come.
  bool has(media_kind kind) const { return kind == media_kind::kVideo ? video_ : sound_; }
  // `zero`: of the times that go through the pipeline, before all media of a source that others
  // feed; such a one doesn't end by itself. None: the source paces itself from now on.
  void start(std::optional<media_time> zero = std::nullopt);
  // What has come by now comes out, within a bound; events::finished follows.
  // `ended`: the source has sent the end of its streams.
  void finish(const std::string& why, bool ended = false);
  // Asks the sender for a picture that can be decoded by itself, once a second at most.
  void request_key_frame();
  // Between two stills; a second at first.
  void set_still_interval(media_time interval) { still_interval_ = interval.count(); }

 private:
  // A pad of the source and what it leads to.
  struct track {
    const codec* kind;
    int number = 0;
    pad_ptr source;
    GstElement* branch = nullptr;  // borrowed from the pipeline
    media_time since{};
    std::atomic<int> rotation{0};
    int64_t next_still = 0;
    bool seen = false;
    // It is told already that nothing of it comes out.
    std::atomic<bool> refused{false};
  };

  // What a pad of the source is linked to.
  struct end {
    pad_ptr source;
    pad_ptr in;
  };

  static void on_pad_added(GstElement* source, GstPad* pad, gpointer self);
  static void on_pad_removed(GstElement* source, GstPad* pad, gpointer self);
  static void on_no_more_pads(GstElement* source, gpointer self);
  void attach(GstPad* pad);
  void lead(GstPad* pad, GstElement* branch);
  void discard(GstPad* pad);
  void leave_out(missing_medium what);
  void leave_out_unknown(const GstCaps* caps);
  void detach(GstPad* pad);
  bool wanted(media_kind kind) const;
  void mark_threads();
  void prepare_decoders(const std::shared_ptr<track>& t, const codec& from);
  void guard_decoder(const std::shared_ptr<track>& t, const codec& from, GstElement* decoder);
  void refuse_size(track& t, const codec& from);
  std::string decode_queue() const;
  std::string video_branch(const codec& c) const;
  std::string sound_branch(const codec& c) const;
  void receive(const std::shared_ptr<track>& t, const char* name,
               std::function<void(GstSample*, media_sample&)> take);
  void connect(const std::shared_ptr<track>& t);
  void connect_video(const std::shared_ptr<track>& t);
  void follow_rotation(const std::shared_ptr<track>& t);
  void pick_stills(const std::shared_ptr<track>& t);
  bool is_current(const track& t, media_time time);
  void note(const std::shared_ptr<track>& t, const media_sample& sample);
  void on_first(const track& t, int width, int height);
  void note_tracks();
  void tell_what_never_came(media_time patience);
  void done(const std::string& why);

  const uint32_t uid_;
  const consumers to_;
  const int channels_;
  const events events_;
  const base::logger log_;
  const base::poster poster_;
  element_ptr pipeline_;
  std::optional<bus_watch> watch_;
  GstElement* source_;  // borrowed from the pipeline
  const bool complete_source_;
  bool ends_by_itself_ = true;
  std::atomic<int64_t> still_interval_{1'000'000'000};

  // The source's threads add to it.
  std::mutex tracks_lock_;
  std::vector<std::shared_ptr<track>> tracks_;
  std::vector<end> ends_;
  track_choice current_video_;
  track_choice current_sound_;
  int last_track_ = 0;

  // Ends that have not seen the end of their stream.
  std::atomic<int> open_sinks_{0};
  // Whether the source had anything that is recorded, not asked for, or told as missing.
  std::atomic<bool> offered_{false};
  bool video_ = false;
  bool sound_ = false;
  media_time key_asked_{};
  std::string finish_reason_;
  bool finished_ = false;
  base::scoped_timer give_up_timer_;
};

}  // namespace zelta::core_service::media
