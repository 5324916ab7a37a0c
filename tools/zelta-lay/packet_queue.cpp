// SPDX-License-Identifier: Apache-2.0
#include "packet_queue.h"

#include <utility>

extern "C" {
#include <libavutil/common.h>
}

namespace zelta::lay {
namespace {

// More than a fragment or a cluster has, whose packets share what is damaged.
constexpr size_t kMostAhead = 512;

int64_t time_of(const AVPacket& packet) {
  return packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

}  // namespace

packet_queue::packet_queue(std::function<bool(AVPacket&)> read) : read_(std::move(read)) {}

void packet_queue::restart(int64_t at, AVRational base) {
  ahead_.clear();
  last_ = at;
  jump_ = av_rescale_q(kSecond, kMicroseconds, base);
}

AVPacket* packet_queue::ahead(size_t index) {
  while (ahead_.size() <= index) {
    av_ptr<AVPacket> packet = make_packet();
    if (!read_(*packet)) return nullptr;
    ahead_.push_back(std::move(packet));
  }
  return ahead_[index].get();
}

// How many packets jump ahead before time is back behind the last good one; 0: it doesn't come
// back.
size_t packet_queue::comes_back() {
  const int64_t jumped = time_of(*ahead_[0]);
  const auto is_back = [&](const AVPacket& packet) {
    const int64_t at = time_of(packet);
    return at != AV_NOPTS_VALUE && at >= av_sat_sub64(last_, jump_) &&
           at < av_sat_sub64(jumped, jump_);
  };
  for (size_t i = 1; i < kMostAhead; ++i) {
    const AVPacket* const packet = ahead(i);
    if (packet == nullptr) return 0;
    if (!is_back(*packet)) continue;
    // One that is alone may be what is damaged.
    const AVPacket* const next = ahead(i + 1);
    if (next == nullptr || is_back(*next)) return i;
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
  av_packet_unref(&packet);
  av_packet_move_ref(&packet, first);
  ahead_.pop_front();
  return true;
}

}  // namespace zelta::lay
