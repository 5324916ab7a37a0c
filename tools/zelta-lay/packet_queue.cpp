// SPDX-License-Identifier: Apache-2.0
#include "packet_queue.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavutil/common.h>
}

namespace zelta::lay {
namespace {

// More than a fragment or a cluster has, whose packets share what is damaged.
constexpr size_t kMostAhead = 512;
// A file may name the same bytes as many packets'.
constexpr size_t kMostBytesAhead = 64 << 20;
constexpr size_t kMostWitnesses = 32;
// Pictures that H.264 and HEVC let an encoder hold back.
constexpr size_t kMostReordered = 16;

int64_t time_of(const AVPacket& packet) {
  return packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

}  // namespace

packet_queue::packet_queue(std::function<bool(AVPacket&)> read) : read_(std::move(read)) {}

void packet_queue::restart(int64_t at, AVRational base) {
  ahead_.clear();
  ahead_bytes_ = 0;
  last_ = at;
  jump_ = av_rescale_q(kSecond, kMicroseconds, base);
}

AVPacket* packet_queue::ahead(size_t index) {
  while (ahead_.size() <= index) {
    av_ptr<AVPacket> packet = make_packet();
    if (!read_(*packet)) return nullptr;
    ahead_bytes_ += static_cast<size_t>(packet->size);
    ahead_.push_back(std::move(packet));
  }
  return ahead_[index].get();
}

// Of those that were read ahead: whether it is before the one that jumped, and not long before the
// last good one.
bool packet_queue::is_back(size_t index) const {
  const int64_t at = time_of(*ahead_[index]);
  return at != AV_NOPTS_VALUE && at >= av_sat_sub64(last_, jump_) &&
         at < av_sat_sub64(time_of(*ahead_[0]), jump_);
}

// As many packets as have jumped say that time is back, or all that are left: a few that say so
// alone may be what is damaged. Nor does time go on soon where the jump led: pictures around a
// pause would be in the order of decoding.
bool packet_queue::stays_back(size_t from) {
  const size_t needed = from + std::min(from, kMostWitnesses);
  for (size_t i = from; i <= from + std::max(needed - from, kMostReordered); ++i) {
    const AVPacket* const packet = ahead(i);
    if (packet == nullptr) return true;
    if (ahead_bytes_ > kMostBytesAhead) return false;
    if (is_back(i)) continue;
    const int64_t jumped = time_of(*ahead_[0]);
    const int64_t at = time_of(*packet);
    const bool goes_on = at > av_sat_sub64(jumped, jump_) && at < av_sat_add64(jumped, jump_);
    if (i <= needed || goes_on) return false;
  }
  return true;
}

// How many packets jump ahead before time is back behind the last good one; 0: it doesn't come
// back.
size_t packet_queue::comes_back() {
  for (size_t i = 1; i < kMostAhead; ++i) {
    if (ahead(i) == nullptr || ahead_bytes_ > kMostBytesAhead) return 0;
    if (is_back(i) && stays_back(i)) return i;
  }
  return 0;
}

// Those that jump are spread from the last good one to the next.
void packet_queue::mend(size_t count) {
  const int64_t room = av_sat_sub64(time_of(*ahead_[count]), last_);
  for (size_t i = 0; i < count; ++i) {
    AVPacket& packet = *ahead_[i];
    packet.pts = packet.dts = av_sat_add64(
        last_, av_rescale(static_cast<int64_t>(i) + 1, room, static_cast<int64_t>(count) + 1));
  }
  mended_ += static_cast<int>(count);
}

bool packet_queue::next(AVPacket& packet) {
  AVPacket* const first = ahead(0);
  if (first == nullptr) return false;
  if (time_of(*first) != AV_NOPTS_VALUE) {
    if (time_of(*first) > av_sat_add64(last_, jump_)) {
      const size_t count = comes_back();
      if (count > 0) mend(count);
    }
    last_ = time_of(*first);
  }
  ahead_bytes_ -= static_cast<size_t>(first->size);
  av_packet_unref(&packet);
  av_packet_move_ref(&packet, first);
  ahead_.pop_front();
  return true;
}

}  // namespace zelta::lay
