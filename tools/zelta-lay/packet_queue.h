// SPDX-License-Identifier: Apache-2.0
// One stream's packets, their times mended where those that follow contradict them. One thread.
//
// A damaged time that jumps ahead would make all that comes before it come too late. Only what
// follows tells it from a pause: behind a pause time goes on, behind damage it comes back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>

#include "av.h"

namespace zelta::lay {

class packet_queue {
 public:
  // `read` fills a packet with the stream's next one, and is false at its end.
  explicit packet_queue(std::function<bool(AVPacket&)> read);

  // Forgets what was read ahead. Packets are to go on from `at`, in their unit of time, of which
  // `base` is one.
  void restart(int64_t at, AVRational base);

  // The next packet; false at the end.
  bool next(AVPacket& packet);
  // How many had a time that had to be mended.
  int mended() const { return mended_; }

 private:
  // The packet behind so many others, or none.
  AVPacket* ahead(size_t index);
  size_t comes_back();
  bool is_back(size_t index) const;
  bool stays_back(size_t from);
  void mend(size_t count);

  std::function<bool(AVPacket&)> read_;
  std::deque<av_ptr<AVPacket>> ahead_;
  size_t ahead_bytes_ = 0;
  int64_t jump_ = 0;  // a second
  int64_t last_ = 0;
  int mended_ = 0;
};

}  // namespace zelta::lay
