// SPDX-License-Identifier: Apache-2.0
// Keeps mixed sound below full scale by turning it down for as long as it is too loud. One thread.
#pragma once

#include "av.h"

namespace zelta::lay {

class limiter {
 public:
  // Gives frames of `frame_size` samples. Throws std::runtime_error, as all of it.
  explicit limiter(int frame_size);

  // Pairs of samples; `first` counts them from the film's zero.
  void push(const float* pairs, int count, int64_t first);
  // No more follow.
  void finish();
  // False when there is none yet, or after the last.
  bool pull(AVFrame& frame);

 private:
  av_ptr<AVFilterGraph> graph_;
  AVFilterContext* in_ = nullptr;   // the graph's
  AVFilterContext* out_ = nullptr;  // the graph's
};

}  // namespace zelta::lay
