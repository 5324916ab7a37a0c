// SPDX-License-Identifier: Apache-2.0
// One user of the channel and everything that is made of their media.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core_service/files/file_series.h"
#include "core_service/media/frame_sender.h"
#include "core_service/media/mix_input.h"
#include "core_service/media/user_graph.h"
#include "core_service/media/volume_meter.h"
#include "core_service/recording_plan.h"
#include "core_service/surroundings.h"

namespace zelta::core_service {

class user {
 public:
  struct events {
    std::function<void(int width, int height)> first_video;
    std::function<void()> first_sound;
    // A file of the user could not be written: the disk, or this one alone.
    std::function<void(const std::string& why, bool disk)> failed;
    // Something of the user can't be recorded; what else there is, is.
    std::function<void(const missing_medium& what)> missing;
    // The media ended by itself; finish() is to be called.
    std::function<void(const std::string& why)> ended;
  };

  // `mix` may be null.
  user(uint32_t uid, user_media from, const recording_plan& plan, surroundings around,
       std::shared_ptr<media::mix_input> mix, events told);
  user(const user&) = delete;
  user& operator=(const user&) = delete;
  // Stops at once.
  ~user();

  uint32_t uid() const { return uid_; }
  bool has(media::media_kind kind) const { return graph_->has(kind); }
  uint32_t read_volume() { return volume_.read(); }

  void start();
  // Records and delivers, or only listens.
  void start_service();
  void stop_service(const std::string& why);
  // The user is gone: what has come is recorded to its end. `finished` follows when all files are
  // complete; the user may be destroyed from inside it.
  void finish(const std::string& why, std::function<void()> finished);
  void abandon_files();
  void set_capture_interval(int seconds);
  void tick();
  void update_manifest();

 private:
  media::user_outputs outputs();
  void make_series(bool may_have_video, bool may_have_sound);
  void on_sound(media::media_time time, const int16_t* samples, size_t frames);
  void start_frames(media::media_time time);
  void on_graph_finished(const std::string& why);
  void tell_finished() const;
  void write_jpg(const media::media_sample& sample);

  const uint32_t uid_;
  const recording_plan plan_;
  const surroundings around_;
  const events told_;
  const std::shared_ptr<media::mix_input> mix_;
  const media::posting posting_;
  const media::media_time lateness_;
  std::shared_ptr<media_feed> feed_;

  std::shared_ptr<media::frame_sender> frames_;
  std::optional<media::sound_line> frame_line_;
  std::atomic<bool> serving_{false};
  media::volume_meter volume_;

  std::unique_ptr<files::file_series> series_;
  std::unique_ptr<media::user_graph> graph_;
  std::string finish_reason_;
  std::function<void()> finished_;
  media::media_time finish_time_{};
  bool media_ended_ = false;
};

}  // namespace zelta::core_service
