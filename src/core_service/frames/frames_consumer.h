// SPDX-License-Identifier: Apache-2.0
// A user's media as frames for the application, while the service runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/logger.h"
#include "core_service/engine/engine_link.h"
#include "core_service/frames/frame_sender.h"
#include "core_service/media/consumer.h"
#include "core_service/media/sound_line.h"
#include "core_service/task/recording_plan.h"

namespace zelta::core_service {

class frames_consumer final : public media::consumer {
 public:
  // Link and plan are borrowed.
  frames_consumer(uint32_t uid, const recording_plan& plan, engine_link& link, base::logger log);

  bool takes(media::form what) const override;
  bool wants(media::form what) const override;
  void on_access_unit(const media::media_sample& sample, int rotation) override;
  void on_picture(GstSample* picture, media::media_time time, int rotation) override;
  void on_still(const media::media_sample& sample, int rotation) override;
  void on_sound(media::media_time time, const int16_t* samples, size_t frames) override;

  void serve(bool serves) override { serves_ = serves; }
  void leave_out(media::form what, bool left_out) override;
  void fill_sound(media::media_time until) override;

 private:
  void start_sound(media::media_time time);

  const recording_plan& plan_;
  const base::logger log_;
  const std::shared_ptr<frame_sender> to_;
  std::optional<media::sound_line> line_;
  std::atomic<bool> serves_{false};
  std::atomic<bool> no_stills_{false};
  std::atomic<bool> no_pictures_{false};
};

}  // namespace zelta::core_service
