// SPDX-License-Identifier: Apache-2.0
// Encodes one stretch of a sound line.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "core_service/media/gst.h"
#include "core_service/media/sound_line.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

enum class sound_codec { kAac, kAdts, kOpus };

// A pipeline of its own: samples in, access units out, with the times of what they hold.
class sound_encoder : public sound_sink {
 public:
  struct settings {
    sound_codec codec;
    int channels;
    int bits_per_second;
  };
  struct events {
    // On the encoder's thread, in the order of time.
    std::function<void(media_sample)> encoded;
    // On the encoder's thread, behind the last of them.
    std::function<void()> ended;
  };
  // Null, with `error`, when a plugin is missing.
  static std::shared_ptr<sound_encoder> make(const settings& wanted, events told,
                                             std::string& error);
  ~sound_encoder() override;
  sound_encoder(const sound_encoder&) = delete;
  sound_encoder& operator=(const sound_encoder&) = delete;

  void on_sound(media_time time, const int16_t* samples, size_t frames) override;
  void on_sound_end() override;

 private:
  sound_encoder(element_ptr pipeline, const settings& wanted, events told);

  const size_t channels_;
  element_ptr pipeline_;
  GstElement* const source_;  // borrowed from the pipeline
};

}  // namespace zelta::core_service::media
