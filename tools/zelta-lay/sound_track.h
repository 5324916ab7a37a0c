// SPDX-License-Identifier: Apache-2.0
// A user's sound, by time: two channels at 48 kHz. One thread.
#pragma once

#include <cstdint>
#include <vector>

#include "session.h"
#include "stretch_walk.h"

namespace zelta::lay {

class sound_track {
 public:
  // Of `of`, which outlives this; what can't be read goes into `found`, which does, too.
  sound_track(const user& of, problems& found);

  // Adds the samples from `first` on to `count` pairs at `to`; `first` counts from the session's
  // zero and never goes back. Where there is no sound nothing is added.
  void add(int64_t first, int count, float* to);

 private:
  bool decode_more(int64_t first, int64_t end);
  bool open_next(int64_t first, int64_t end);
  bool is_resampled(const AVFrame& frame);
  bool take(const AVFrame& frame);
  void lay_at(int64_t at);

  stretch_walk walk_;
  av_ptr<SwrContext> resampler_;
  int resampled_format_ = -1;
  int resampled_rate_ = 0;
  int resampled_channels_ = 0;
  av_ptr<AVFrame> frame_ = make_frame();
  bool is_first_ = false;  // no frame of the file was taken yet
  std::vector<float> decoded_;
  int64_t decoded_at_ = 0;  // sample
  int64_t decoded_end_ = 0;
  float last_[2] = {0, 0};  // before decoded_end_
};

}  // namespace zelta::lay
