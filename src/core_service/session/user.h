// SPDX-License-Identifier: Apache-2.0
// One user of the channel and everything that is made of their media.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core_service/files/destination.h"
#include "core_service/files/files_consumer.h"
#include "core_service/files/stills_consumer.h"
#include "core_service/frames/frames_consumer.h"
#include "core_service/media/consumer.h"
#include "core_service/media/media_feed.h"
#include "core_service/media/track_choice.h"
#include "core_service/media/volume_meter.h"
#include "core_service/session/decoders.h"
#include "core_service/task/recording_plan.h"

namespace zelta::core_service {

class user {
 public:
  struct events {
    std::function<void(int width, int height)> first_video;
    std::function<void()> first_sound;
    // A file of the user could not be written: the disk, or this one alone.
    std::function<void(const std::string& why, bool disk)> failed;
    // The user has written something to be kept.
    std::function<void(const media::user_text& what)> text;
    // Something of the user can't be recorded; what else there is, is.
    std::function<void(const missing_medium& what)> missing;
    // What was missing of them is made again.
    std::function<void(const std::string& medium)> over;
    // The media ended by itself; finish() is to be called.
    std::function<void(const files::recording_end& why)> ended;
  };

  // `may_decode_pictures` false: nothing that needs them decoded is made. `mix` may be null.
  user(uint32_t uid, std::shared_ptr<media::media_feed> from, const recording_plan& plan,
       bool may_decode_pictures, files::destination to, engine_link& engine,
       std::shared_ptr<media::consumer> mix, events told);
  user(const user&) = delete;
  user& operator=(const user&) = delete;
  // Stops at once.
  ~user();

  bool has(media::media_kind kind) const;
  // Since the last call of the same function, see volume_meter.
  uint32_t volume_to_report();
  uint32_t volume_to_keep();
  void measure_volume(media::volume_meter::ask what);

  void start();
  // Records and delivers, or only listens.
  void start_service();
  void stop_service(const files::recording_end& why);
  // The user is gone: what has come is recorded to its end. `finished` follows when all files are
  // complete; the user may be destroyed from inside it.
  void finish(const files::recording_end& why, std::function<void()> finished);
  void abandon_files();
  // What may be left out of what is made while the machine is too busy.
  void leave_out(bool stills, bool application_pictures);
  void set_still_interval(int seconds);
  void tick();
  // What found no room since the last call is counted, and told.
  void count_losses();
  void tell_progress();

 private:
  void make_consumers(bool may_decode_pictures, engine_link& engine,
                      std::shared_ptr<media::consumer> mix);
  std::shared_ptr<files::files_consumer> make_files();
  void on_unit(int track, const media::encoded_unit& unit);
  void on_first(const media::encoded_unit& unit);
  void hand_on(const media::encoded_unit& unit);
  void tell_undecodable();
  void request_key_frame();
  void on_media_end();
  void tell_finished() const;

  const uint32_t uid_;
  const recording_plan& plan_;
  const files::destination destination_;
  const events events_;
  const base::poster poster_;
  std::shared_ptr<media::media_feed> feed_;
  const media::media_time lateness_;
  media::track_choice video_choice_;
  media::track_choice sound_choice_;
  media::unit_samples video_samples_;
  std::optional<media::media_time> first_video_;
  bool has_sound_ = false;
  bool serving_ = false;
  uint64_t lost_packets_ = 0;

  media::consumers consumers_;
  // Of them, those that are asked for more; null where nobody wants them.
  std::shared_ptr<files::files_consumer> files_;
  std::shared_ptr<media::volume_meter> volume_;
  media::volume_meter::mark reported_;
  media::volume_meter::mark kept_;
  std::unique_ptr<decoders> decoders_;
  std::optional<files::recording_end> finish_reason_;
  std::function<void()> finished_;
  media::media_time finish_time_{};
  // All that came has been handed on.
  bool media_ended_ = false;
};

}  // namespace zelta::core_service
