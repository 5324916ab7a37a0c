// SPDX-License-Identifier: Apache-2.0
#include "picture_track.h"

#include <utility>

namespace zelta::lay {
namespace {

// From one file to the next of a user the last picture stays, so that a join isn't seen.
constexpr int64_t kJoinUs = 200000;
// Its first picture may come that much after a file's beginning.
constexpr int64_t kFirstPictureUs = 500000;
// Below that reading on is as fast as seeking.
constexpr int64_t kSeekUs = 2000000;

}  // namespace

picture_track::picture_track(const user& of, int64_t early_us, problems& found)
    : of_(of), early_us_(early_us), walk_(of, AVMEDIA_TYPE_VIDEO, found) {}

void picture_track::open_what_stands_at(int64_t t_us) {
  while (walk_.open_next(t_us, t_us + early_us_ + 1)) {
    if (t_us - walk_.current().begin_us > kSeekUs) walk_.seek(t_us);
    has_next_ = walk_.next_frame(*next_);
  }
  // The file before is over as well when the next one can't be read.
  has_next_ = has_next_ && walk_.is_open();
}

bool picture_track::holds(int64_t t_us) const {
  if (shown_of_ == nullptr) return false;
  if (t_us < shown_of_->end_us) return true;
  const auto next = static_cast<size_t>(shown_of_ - of_.stretches.data()) + 1;
  if (next >= of_.stretches.size()) return false;
  const stretch& s = of_.stretches[next];
  return s.has_picture() && s.begin_us <= shown_of_->end_us + kJoinUs &&
         t_us < s.begin_us + kFirstPictureUs;
}

const AVFrame* picture_track::at(int64_t t_us) {
  open_what_stands_at(t_us);
  while (has_next_ && next_->pts <= t_us + early_us_) {
    std::swap(shown_, next_);
    shown_of_ = &walk_.current();
    ++serial_;
    has_next_ = walk_.next_frame(*next_);
  }
  return holds(t_us) ? shown_.get() : nullptr;
}

}  // namespace zelta::lay
