// SPDX-License-Identifier: Apache-2.0
// The graph of the mix, paced by the clock and not by its users.
//
//     canvas ──────────▶ compositor ─▶ H.264 encoder ─▶ video out
//     user's pictures ─▶     ▲
//     silence ─────────▶ audiomixer ─▶ sound out
//     user's sound ────▶     ▲
//
// What is mixed comes out `latency` after it was captured, so that media which arrives late in
// that time is still in its place. A user who stops sending keeps nobody waiting.
//
// Thread rule: all functions on the recorder's loop thread; the inputs may be fed by any thread,
// and what comes out comes on GStreamer's threads.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "core_service/media/codecs.h"
#include "core_service/media/consumer.h"
#include "core_service/media/gst.h"
#include "core_service/media/timeline.h"
#include "core_service/mix/tiles.h"

namespace zelta::core_service::mix {

class mix_graph {
 public:
  struct settings {
    bool video;
    bool sound;
    int width;
    int height;
    int fps;
    int kbps;
    bool high_profile;
    int channels;
    media::media_time latency;
  };
  struct outputs {
    std::function<void(media::media_sample)> video;
    std::function<void(media::media_time, const int16_t* samples, size_t frames)> sound;
    // On the loop's thread: the graph failed as a whole.
    std::function<void(const std::string& why)> failed;
  };

  // Null, with `error`, when a plugin is missing.
  static std::unique_ptr<mix_graph> make(const settings& wanted, base::event_loop& loop, outputs to,
                                         std::string& error);
  mix_graph(const mix_graph&) = delete;
  mix_graph& operator=(const mix_graph&) = delete;
  ~mix_graph();

  std::shared_ptr<media::consumer> add_user(uint32_t uid);
  void remove_user(const media::consumer* user);
  // A user without a tile is heard and not seen. The order of the tiles is that of their layers.
  void set_tiles(const std::vector<tile>& tiles);
  void set_canvas(GstSample* picture);
  // Shown in place of the user's own picture until that comes again; null: nothing is.
  void set_substitute(uint32_t uid, GstSample* picture);
  // The first picture from now on is one that a file can begin with; twice a second at most.
  void request_key_frame();
  // Every second picture of the mix is not encoded.
  void halve_pictures(bool halved) { halved_ = halved; }
  // Notices who has stopped sending pictures.
  void tick();

 private:
  class input;

  mix_graph(media::element_ptr pipeline, const settings& wanted, base::event_loop& loop,
            outputs to);
  void connect(outputs to);
  void force_asked_key_frames();
  void leave_out_halves();
  void show_canvas();

  const settings settings_;
  // Running time from which on the next picture is to be a key frame; negative: none is wanted.
  std::atomic<int64_t> key_wanted_{-1};
  std::atomic<bool> halved_{false};
  media::element_ptr pipeline_;
  std::optional<media::bus_watch> watch_;
  std::vector<std::shared_ptr<input>> users_;
  media::sample_ptr canvas_;
  media::media_time shown_{};
  media::media_time key_asked_{};
};

}  // namespace zelta::core_service::mix
