// SPDX-License-Identifier: Apache-2.0
// What becomes of one user's media: the one place where the graph is wired.
//
//     source ─▶ queue ─▶ parse ──────────────────────────▶ mp4 / webm ─▶ file      video as it came
//     source ─▶ queue ─▶ parse ─▶ decode ─▶ fill gaps ─▶ encode ─▶ mp4 / webm      sound
//     source ─▶ queue ─▶ parse ─▶ [decode] ─▶ frames                               for the
//     application
//
// A medium goes into the file or to the application, not to both. Every user has a pipeline of
// their own, so that an error of one user's media costs nobody else anything.
//
// Thread rule: all functions and listener calls on the recorder's loop thread. GStreamer's threads
// post to it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/log.h"
#include "core_service/channel/channel.h"
#include "core_service/engine_link.h"
#include "core_service/manifest.h"
#include "core_service/media/codecs.h"
#include "core_service/media/frame_sink.h"
#include "core_service/media/gst.h"
#include "core_service/media/track_meter.h"

namespace zelta::core_service::media {

// What is done with a medium.
struct media_plan {
  bool take_audio = true;
  bool take_video = true;
  // Set: frames for the application in place of a recording.
  std::optional<frame_kind> audio_frames;
  std::optional<frame_kind> video_frames;
  int32_t avsync_type = 2;
};

// Where the source's threads wait until their tracks lead somewhere. Once open it stays open.
class track_gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    opened_.wait(lock, [this] { return open_; });
  }
  void open() {
    const std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    opened_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

class user_graph;

class user_graph_listener {
 public:
  virtual void on_first_video(uint32_t uid, int width, int height) = 0;
  virtual void on_first_audio(uint32_t uid) = 0;
  // All media has been written and the file is closed; the graph may be destroyed. `why` is the
  // manifest's reason. `disk` tells that the file could not be written.
  virtual void on_graph_finished(user_graph& graph, const std::string& why, bool disk) = 0;

 protected:
  ~user_graph_listener() = default;
};

class user_graph {
 public:
  struct surroundings {
    std::string folder;
    base::event_loop& loop;
    manifest& files;
    engine_link& link;
    user_graph_listener& listener;
  };

  user_graph(uint32_t uid, user_media from, const media_plan& plan, surroundings around);
  user_graph(const user_graph&) = delete;
  user_graph& operator=(const user_graph&) = delete;
  // Stops at once; a file that isn't finished stays a fragmented one.
  ~user_graph();

  uint32_t uid() const { return uid_; }
  // Whether any media of the kind has come.
  bool has(media_kind kind) const;

  void start();
  // No more media: completes the file, within a bound. on_graph_finished follows.
  void finish(const std::string& why);
  // Writes the state of the file into its manifest entry.
  void update_manifest();

 private:
  // A pad of the source and what it leads to.
  struct track {
    const codec* kind;  // null: nothing is done with it
    pad_ptr source;
    GstElement* branch;  // borrowed from the pipeline
    std::unique_ptr<track_meter> meter;
    std::unique_ptr<frame_sink> frames;
  };

  static void on_pad_added(GstElement* source, GstPad* pad, gpointer self);
  static void on_no_more_pads(GstElement* source, gpointer self);
  void post(std::function<void()> work);
  void watch_bus();
  void on_bus();
  void on_message(GstMessage* message);
  void open(GstPad* pad, bool held);
  void wire();
  void start_branches();
  bool wire_track(pad_ptr from);
  bool connect(track& t, const std::string& description);
  void discard(pad_ptr source);
  std::string branch_description(const codec& c) const;
  std::string recorded_branch(const codec& c) const;
  bool wanted(const codec& c) const;
  std::optional<frame_kind> frames_of(const codec& c) const;
  bool recorded(const codec& c) const { return wanted(c) && !frames_of(c); }
  bool open_file(bool with_video);
  void meter(track& t, GstPad* end);
  int64_t utc_ms_at(GstClockTime running_time) const;
  void done(const std::string& why);
  void log(base::log_levels level, const std::string& text) const;

  const uint32_t uid_;
  const media_plan plan_;
  surroundings around_;
  element_ptr pipeline_;
  bus_ptr bus_;
  int bus_fd_ = -1;
  GstElement* source_;  // borrowed from the pipeline
  const bool complete_source_;

  // Filled by the source's thread.
  std::mutex open_pads_lock_;
  std::vector<pad_ptr> open_pads_;
  track_gate gate_;

  std::vector<track> tracks_;
  GstElement* muxer_ = nullptr;  // borrowed from the pipeline
  bool webm_ = false;
  std::optional<size_t> file_;
  std::string path_;
  bool wired_ = false;
  std::string finish_reason_;
  bool disk_failed_ = false;
  bool finished_ = false;
  base::timer_event* give_up_timer_ = nullptr;
  // Posted work of a graph that is gone must not run.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace zelta::core_service::media
