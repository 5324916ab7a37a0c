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
#include "core_service/frames/frame_sender.h"
#include "core_service/media/media_feed.h"
#include "core_service/media/mix_input.h"
#include "core_service/media/track_choice.h"
#include "core_service/media/unit_source.h"
#include "core_service/media/user_graph.h"
#include "core_service/media/volume_meter.h"
#include "core_service/session/surroundings.h"
#include "core_service/task/recording_plan.h"

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

  // `may_decode_pictures` false: nothing that needs them decoded is made. `mix` may be null.
  user(uint32_t uid, media::user_media from, const recording_plan& plan, bool may_decode_pictures,
       surroundings around, std::shared_ptr<media::mix_input> mix, events told);
  user(const user&) = delete;
  user& operator=(const user&) = delete;
  // Stops at once.
  ~user();

  uint32_t uid() const { return uid_; }
  bool has(media::media_kind kind) const;
  uint32_t read_volume() { return volume_.read(); }
  // Whether volumes will be asked for: Opus that is recorded as it came is not decoded for nothing.
  void measure_volume(bool wanted) { measures_volume_ = wanted; }

  void start();
  // Records and delivers, or only listens.
  void start_service();
  void stop_service(const std::string& why);
  // The user is gone: what has come is recorded to its end. `finished` follows when all files are
  // complete; the user may be destroyed from inside it.
  void finish(const std::string& why, std::function<void()> finished);
  void abandon_files();
  // What may be left out of what is made while the machine is too busy.
  void leave_out(bool stills, bool application_pictures);
  void set_capture_interval(int seconds);
  void tick();
  // What found no room since the last call is counted, and told.
  void count_losses();
  void update_manifest();

 private:
  media::user_outputs outputs();
  void make_series(bool may_have_video, bool may_have_sound);
  void make_graph(media::user_media from);
  void on_unit(int track, const media::encoded_unit& unit);
  void on_first(const media::encoded_unit& unit);
  void record(const media::encoded_unit& unit);
  void expect_sound(const media::format_ptr& format, media::media_time from);
  bool is_decoded(const media::codec& kind) const;
  bool is_kept(const media::codec& kind) const;
  void decode(int track, const media::encoded_unit& unit);
  void tell_undecodable();
  void request_key_frame();
  void on_sound(media::media_time time, const int16_t* samples, size_t frames);
  void start_frames(media::media_time time);
  void on_graph_finished(const std::string& why);
  void drain();
  void on_media_end();
  void tell_finished() const;
  void write_jpg(const media::media_sample& sample);

  const uint32_t uid_;
  const recording_plan& plan_;
  const bool may_decode_pictures_;
  const surroundings around_;
  const events told_;
  const std::shared_ptr<media::mix_input> mix_;
  const media::posting posting_;
  const media::media_time lateness_;
  // Of media that comes in units: a graph only decodes what somebody takes decoded, and is there
  // once it is needed.
  std::shared_ptr<media::media_feed> feed_;
  std::unique_ptr<media::unit_source> source_;
  media::track_choice video_choice_;
  media::track_choice sound_choice_;
  media::unit_samples video_samples_;
  std::optional<media::media_time> first_video_;
  bool has_sound_ = false;
  bool measures_volume_ = false;
  bool graph_ended_ = false;
  // Pictures were not decoded: they are again from a key frame on.
  bool wants_key_ = false;
  media::media_time graph_failed_{};
  std::atomic<bool> no_stills_{false};
  std::atomic<bool> no_application_pictures_{false};
  uint64_t lost_packets_ = 0;
  // Sound goes into files as it came, and not as samples.
  std::atomic<bool> keeps_sound_{false};

  std::shared_ptr<media::frame_sender> frames_;
  std::optional<media::sound_line> frame_line_;
  std::atomic<bool> serving_{false};
  media::volume_meter volume_;

  media::user_outputs outputs_;
  std::unique_ptr<files::file_series> series_;
  std::unique_ptr<media::user_graph> graph_;
  std::string finish_reason_;
  std::function<void()> finished_;
  media::media_time finish_time_{};
  bool media_ended_ = false;
  bool drained_ = false;  // nothing more comes in
};

}  // namespace zelta::core_service
