// SPDX-License-Identifier: Apache-2.0
// A user's pictures, by time. One thread.
#pragma once

#include <cstdint>

#include "session.h"
#include "stretch_walk.h"

namespace zelta::lay {

class picture_track {
 public:
  // Of `of`, which outlives this; what can't be read goes into `found`, which does, too.
  // `early_us`: how much before its time a picture may be shown, half a frame of the film.
  picture_track(const user& of, int64_t early_us, problems& found);

  // The picture that stands at `t_us`, which never goes back; null where there is none. It is this
  // object's, until the next call.
  const AVFrame* at(int64_t t_us);
  // Another one for each picture.
  uint64_t serial() const { return serial_; }

 private:
  void open_what_stands_at(int64_t t_us);
  bool holds(int64_t t_us) const;

  const user& of_;
  int64_t early_us_;
  stretch_walk walk_;
  av_ptr<AVFrame> shown_ = make_frame();
  const stretch* shown_of_ = nullptr;
  av_ptr<AVFrame> next_ = make_frame();
  bool has_next_ = false;
  uint64_t serial_ = 0;
};

}  // namespace zelta::lay
