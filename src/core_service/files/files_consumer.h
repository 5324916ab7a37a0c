// SPDX-License-Identifier: Apache-2.0
// A user's media in files: pictures as they came, sound as it came where a file takes it, and
// encoded from samples where not.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "core_service/files/file_series.h"
#include "core_service/media/consumer.h"

namespace zelta::core_service::files {

class files_consumer final : public media::consumer {
 public:
  // `keeps_opus`: it goes in as it came.
  files_consumer(series_settings how, bool keeps_opus, destination to, file_series::events told)
      : settings_(how),
        keeps_opus_(keeps_opus),
        series_(std::move(how), std::move(to), std::move(told)) {}

  bool takes(media::form what) const override {
    if (what == media::form::kCodedPictures) return settings_.video;
    return (what == media::form::kSound || what == media::form::kCodedSound) && settings_.sound;
  }
  bool wants(media::form what) const override {
    if (what == media::form::kSound && keeps_sound_) return false;
    if (what == media::form::kCodedSound && !keeps_sound_) return false;
    return takes(what);
  }
  void on_coded_picture(const media::media_sample& sample, const media::codec& kind) override {
    series_.on_video(sample, kind);
  }
  void on_coded_sound(const media::encoded_unit& unit) override { series_.on_opus(unit); }
  void on_sound(media::media_time time, const int16_t* samples, size_t frames) override {
    series_.sound()->push(time, samples, frames);
  }

  // On the loop's thread, as all that follows. Before sound of another format comes, from `from`
  // on, as units or out of a decoder.
  void expect_sound(const media::format_ptr& format, media::media_time from);
  file_series& series() { return series_; }

 private:
  bool keeps(const media::stream_format& format) const;

  const series_settings settings_;
  const bool keeps_opus_;
  std::atomic<bool> keeps_sound_{false};
  file_series series_;
};

}  // namespace zelta::core_service::files
