// SPDX-License-Identifier: Apache-2.0
// A user's sound, by time: two channels at 48 kHz. Where it begins, ends or steps it is faded. One
// thread.
#pragma once

#include <cstdint>
#include <vector>

#include "session.h"
#include "stretch_walk.h"

namespace zelta::lay {

// What begins or ends in the middle of a wave is faded over that much, or it would click.
constexpr int64_t kFadeSamples = kSampleRate / 200;

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
  void ring_out();
  void add_rest(int64_t first, int64_t end, float* to);

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
  bool is_silent_ = true;   // there is nothing that could go on behind it
  // What fades behind sound that ended, from rest_at_ on.
  std::vector<float> rest_;
  int64_t rest_at_ = 0;
};

}  // namespace zelta::lay
