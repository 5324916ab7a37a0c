// SPDX-License-Identifier: Apache-2.0
#include "picture_track.h"

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
    : of_(of), early_us_(early_us), found_(found) {}

picture_track::~picture_track() {
  close();
}

void picture_track::close() {
  if (reader_ != nullptr && !reader_->fault().empty()) {
    found_.add(current_->name + ", picture: " + reader_->fault());
  }
  reader_.reset();
  has_next_ = false;
}

void picture_track::read_next() {
  has_next_ = reader_->next_frame(*next_);
  if (has_next_) next_->pts += current_->begin_us;
}

void picture_track::open_what_stands_at(int64_t t_us) {
  for (; next_stretch_ < of_.stretches.size(); ++next_stretch_) {
    const stretch& s = of_.stretches[next_stretch_];
    if (s.begin_us > t_us + early_us_) return;
    if (!s.has_picture() || s.end_us <= t_us) continue;
    close();
    current_ = &s;
    std::string error;
    reader_ = stream_reader::open(s.path, AVMEDIA_TYPE_VIDEO, error);
    if (reader_ == nullptr) {
      found_.add(s.name + ", picture: " + error);
      continue;
    }
    if (t_us - s.begin_us > kSeekUs) reader_->seek(t_us - s.begin_us);
    read_next();
  }
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
    shown_of_ = current_;
    ++serial_;
    read_next();
  }
  return holds(t_us) ? shown_.get() : nullptr;
}

}  // namespace zelta::lay
