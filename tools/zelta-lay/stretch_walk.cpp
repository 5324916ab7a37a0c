// SPDX-License-Identifier: Apache-2.0
#include "stretch_walk.h"

#include <algorithm>

namespace zelta::lay {
namespace {

// Times further outside of a file's span than that are damage: one such picture would end all that
// come after it.
constexpr int64_t kSlackUs = kSecond;
// What a decoder leaves out at a file's beginning makes its sound end that much later than its
// packets: so long two files may overlap, and nothing is missing between them.
constexpr int64_t kLateSoundUs = 20000;

}  // namespace

stretch_walk::stretch_walk(const user& of, AVMediaType medium, problems& found)
    : of_(of), medium_(medium), found_(found) {}

stretch_walk::~stretch_walk() {
  close();
}

void stretch_walk::add_fault(const std::string& words) {
  found_.add(current_->name + (medium_ == AVMEDIA_TYPE_VIDEO ? ", picture: " : ", sound: ") +
             words);
}

void stretch_walk::close() {
  if (reader_ != nullptr && !reader_->fault().empty()) add_fault(reader_->fault());
  reader_.reset();
}

bool stretch_walk::open_next(int64_t after_us, int64_t before_us) {
  for (; next_ < of_.stretches.size(); ++next_) {
    const stretch& s = of_.stretches[next_];
    if (s.begin_us >= before_us) return false;
    const bool has_it = medium_ == AVMEDIA_TYPE_VIDEO ? s.has_picture() : s.has_sound();
    if (!has_it || s.end_us <= after_us) continue;
    close();
    current_ = &s;
    std::string error;
    reader_ = stream_reader::open(s.path, medium_, error);
    if (reader_ == nullptr) {
      add_fault(error);
      continue;
    }
    ++next_;
    return true;
  }
  return false;
}

void stretch_walk::seek(int64_t at_us) {
  reader_->seek(at_us - current_->begin_us + current_->late_us);
}

std::optional<int64_t> stretch_walk::believed(int64_t ticks, AVRational base) {
  if (ticks == AV_NOPTS_VALUE) return std::nullopt;
  const int64_t at = av_rescale_q(ticks, base, kMicroseconds);
  const int64_t length = std::max(current_->media_us, current_->end_us - current_->begin_us);
  if (at < -kSlackUs || at > length + current_->late_us + kSlackUs) return std::nullopt;
  return current_->begin_us + at - current_->late_us;
}

// The last file is read to its end, whatever was told of it.
bool stretch_walk::is_over(int64_t at_us) const {
  return current_ != &of_.stretches.back() && at_us >= current_->end_us;
}

bool stretch_walk::next_packet(AVPacket& packet) {
  while (reader_ != nullptr && reader_->next_packet(packet)) {
    const auto shown = believed(packet.pts, reader_->time_base());
    if (!shown) {
      add_fault("what has a damaged time is left out");
      continue;
    }
    packet.dts = std::min(*shown, believed(packet.dts, reader_->time_base()).value_or(*shown));
    packet.pts = *shown;
    if (!is_over(packet.dts)) return true;
    av_packet_unref(&packet);
    break;
  }
  close();
  return false;
}

bool stretch_walk::next_frame(AVFrame& frame) {
  const int64_t late_us = medium_ == AVMEDIA_TYPE_AUDIO ? kLateSoundUs : 0;
  while (reader_ != nullptr && reader_->next_frame(frame)) {
    const auto shown = believed(frame.pts, kMicroseconds);
    if (!shown) {
      add_fault("what has a damaged time is left out");
      continue;
    }
    frame.pts = *shown;
    if (!is_over(frame.pts - late_us)) return true;
    break;
  }
  close();
  return false;
}

}  // namespace zelta::lay
