// SPDX-License-Identifier: Apache-2.0
// A user's sound, by time: two channels at 48 kHz. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "session.h"
#include "stream_reader.h"

namespace zelta::lay {

class sound_track {
 public:
  // Of `of`, which outlives this; what can't be read goes into `found`, which does, too.
  sound_track(const user& of, problems& found);
  ~sound_track();
  sound_track(const sound_track&) = delete;
  sound_track& operator=(const sound_track&) = delete;

  // Adds the samples from `first` on to `count` pairs at `to`; `first` counts from the session's
  // zero and never goes back. Where there is no sound nothing is added.
  void add(int64_t first, int count, float* to);

 private:
  bool decode_more(int64_t first, int64_t end);
  bool open_next(int64_t first, int64_t end);
  bool take(const AVFrame& frame);
  void close();

  const user& of_;
  problems& found_;
  size_t next_stretch_ = 0;
  const stretch* current_ = nullptr;
  std::unique_ptr<stream_reader> reader_;
  av_ptr<SwrContext> resampler_;
  int resampled_format_ = -1;
  int resampled_rate_ = 0;
  int resampled_channels_ = 0;
  av_ptr<AVFrame> frame_ = make_frame();
  std::vector<float> decoded_;
  int64_t decoded_at_ = 0;  // sample
  int64_t decoded_end_ = 0;
};

}  // namespace zelta::lay
