// SPDX-License-Identifier: Apache-2.0
// Decoding times for streams that carry none, such as those of RTP: each unit's from the times of
// presentation up to it.
#pragma once

#include <array>
#include <cstddef>

#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

// One thread; one object for the units of one stream, in decoding order.
class decode_times {
 public:
  // `reordered` of the stream's format.
  explicit decode_times(int reordered);

  struct times {
    media_time presentation;
    media_time decode;
  };
  // Decoding never goes back and is never later than presentation. It may stand still: two units
  // of one time are better than a time that drifts away from presentation. A stream that reorders
  // more than it said is believed from then on; until decoding has fallen back far enough for it,
  // what would be presented before it is decoded is presented at once.
  times next(media_time presentation);

 private:
  static constexpr size_t kMostReordered = 16;

  void insert(media_time presentation);

  // The latest times of presentation, ascending: as many as may be decoded before the first of them
  // is shown, and that one, whose time is the one to decode at.
  std::array<media_time, kMostReordered + 1> window_{};
  size_t depth_;
  bool started_ = false;
  media_time last_{};
};

}  // namespace zelta::core_service::media
