// SPDX-License-Identifier: Apache-2.0
// The mix of all users: who is in it, how they stand, and what becomes of it.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core_service/files/destination.h"
#include "core_service/files/file_series.h"
#include "core_service/frames/frame_sender.h"
#include "core_service/mix/mix_graph.h"
#include "core_service/task/recording_plan.h"

namespace zelta::core_service::mix {

class mix {
 public:
  struct events {
    // A file could not be written, or the graph failed as a whole. `fatal`: the next will not be
    // written either.
    std::function<void(const std::string& why, bool fatal)> failed;
    // After finish(): all files are complete. The mix may be destroyed from inside the call.
    std::function<void()> finished;
  };
  struct backgrounds {
    std::string canvas;  // paths of images; empty: none
    std::string user;
  };

  // `lateness` is that of the users' media. Null, with `error`, when a plugin is missing.
  static std::unique_ptr<mix> make(const recording_plan& plan, media::media_time lateness,
                                   const backgrounds& images, const files::destination& to,
                                   engine_link& engine, events told, std::string& error);
  mix(const mix&) = delete;
  mix& operator=(const mix&) = delete;
  // Stops at once.
  ~mix();

  std::shared_ptr<media::consumer> add_user(uint32_t uid);
  // What the user has sent by now is still mixed.
  void remove_user(uint32_t uid);
  // In place of the grid, or of the layout before.
  void set_layout(const recording::mixing_layout& layout);
  void set_user_background(uint32_t uid, const std::string& path);

  void start_service();
  void stop_service(const files::recording_end& why);
  // Everything that was captured until now is mixed and recorded; events::finished follows.
  void finish(const files::recording_end& why);
  void abandon_files();
  void halve_pictures(bool halved);
  void tick();
  void tell_progress();

 private:
  mix(const recording_plan& plan, media::media_time lateness, const files::destination& to,
      engine_link& engine, events told);
  struct member {
    uint32_t uid;
    std::shared_ptr<media::consumer> input;
    std::optional<media::media_time> left;
  };

  bool build(const backgrounds& images, std::string& error);
  void make_series(bool video, bool sound);
  void on_sound(media::media_time time, const int16_t* samples, size_t frames);
  void arrange();
  void let_go(media::media_time left_before);
  void show_canvas();
  media::sample_ptr background_of(uint32_t uid);
  void on_stopped();

  const recording_plan plan_;
  const files::destination destination_;
  engine_link& link_;
  const events events_;
  const base::poster poster_;
  const media::media_time latency_;
  const media::codec* const h264_;

  media::sample_ptr canvas_image_;
  media::sample_ptr user_image_;
  std::map<uint32_t, media::sample_ptr> user_images_;
  std::optional<recording::mixing_layout> layout_;
  std::vector<member> users_;  // in the order of coming

  std::atomic<bool> serving_{false};
  std::shared_ptr<frame_sender> frames_;
  std::optional<media::sound_line> frame_line_;
  std::vector<std::unique_ptr<files::file_series>> series_;
  files::file_series* sound_files_ = nullptr;
  bool finishing_ = false;
  size_t stopped_ = 0;
  std::atomic<int64_t> progress_{0};
  std::unique_ptr<mix_graph> graph_;
};

}  // namespace zelta::core_service::mix
