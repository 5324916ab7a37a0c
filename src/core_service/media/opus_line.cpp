// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/opus_line.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "core_service/media/opus_repair.h"

namespace zelta::core_service::media {
namespace {

using namespace std::chrono_literals;

constexpr media_time kKeepLimit = 5s;
// Five seconds of the shortest packets: whatever times a sender gives, no more are kept.
constexpr size_t kKeepPackets = 2000;
// Two users' files, which may be off in either direction, stay together within what an ear and an
// eye notice.
constexpr media_time kTolerance = 5ms;
constexpr media_time kRepairInterval = 100ms;
// Beyond, so that what is put right isn't at once wrong the other way.
constexpr media_time kStill = 1ms;
// What may lie between the end of one packet and the time of the next, or overlap there, and be no
// gap and no other order.
constexpr media_time kMostJitter = 10ms;

constexpr int64_t nearest_steps(media_time span) {
  return (span + kOpusStep / 2) / kOpusStep;
}
constexpr int64_t covering_steps(media_time span) {
  return (span + kOpusStep - 1ns) / kOpusStep;
}

}  // namespace

void opus_line::push(media_time time, const shared_bytes& packet, bool after_loss) {
  const auto about = read_opus_packet(packet.data(), packet.size());
  if (!about) {
    ++counted_.invalid;
    return;
  }
  const media_time end = time + about->duration();
  last_heard_ = std::max(end, last_heard_.value_or(end));
  const piece whole{time, packet, *about, after_loss};
  if (sink_) return place(whole);
  keep(whole);
}

void opus_line::keep(const piece& packet) {
  const auto has_first_to_go = [&] {
    return !kept_.empty() &&
           (packet.time - kept_.front().time > kKeepLimit || kept_.size() >= kKeepPackets);
  };
  if (!has_first_to_go()) {
    kept_.push_back(packet);
    return;
  }
  // The memory of one that goes is for the new one.
  kept_.splice(kept_.end(), kept_, kept_.begin());
  kept_.back() = packet;
  while (kept_.size() > 1 && packet.time - kept_.front().time > kKeepLimit) kept_.pop_front();
}

std::optional<media_time> opus_line::first_kept() const {
  if (kept_.empty()) return std::nullopt;
  return kept_.front().time;
}

void opus_line::start(media_time from, std::shared_ptr<opus_sink> to) {
  sink_ = std::move(to);
  cuts_.clear();
  position_ = from;
  exact_ = true;
  for (const piece& kept : std::exchange(kept_, {})) place(kept);
}

void opus_line::cut(media_time at, std::shared_ptr<opus_sink> next) {
  if (!sink_) return;
  cuts_.push_back({at, std::move(next)});
  switch_before(kOpusStep);
}

void opus_line::fill_to(media_time until) {
  if (!sink_) return;
  const int64_t missing = nearest_steps(until - position_);
  if (missing <= 0) return;
  exact_ = true;
  silence(missing, counted_.filled);
}

std::optional<media_time> opus_line::position() const {
  if (!sink_) return std::nullopt;
  return position_;
}

void opus_line::place(const piece& packet) {
  repair_before(packet);
  put(packet);
}

// Directly behind one that went out there is at least a frame's room.
void opus_line::repair_before(const piece& packet) {
  const media_time frame = packet.about.steps_a_frame * kOpusStep;
  if (!packet.after_loss || exact_ || packet.time < repaired_until_) return;
  if (packet.time - last_end_ < frame - kMostJitter / 2) return;
  const auto made = repair_opus(last_bytes_, packet.bytes);
  if (!made) return;
  repaired_until_ = packet.time + kRepairInterval;
  if (!put({packet.time - frame, made->bytes, made->about})) return;
  ++counted_.repaired;
  --counted_.packets;
}

// False: it doesn't go out, or not now.
bool opus_line::put(const piece& packet) {
  if (is_left_out(packet)) return false;
  fill_before(packet);
  switch_before(packet.about.duration());
  // It comes after the end, so it may be the first of what follows.
  if (!sink_) {
    keep(packet);
    return false;
  }
  exact_ = false;
  last_end_ = packet.time + packet.about.duration();
  last_ = packet.about;
  last_bytes_ = packet.bytes;
  ++counted_.packets;
  emit(packet.bytes, packet.about.duration());
  return true;
}

bool opus_line::is_left_out(const piece& packet) {
  const media_time behind = position_ - packet.time;
  const media_time duration = packet.about.duration();
  const media_time half = duration / 2;
  // By the sender's own times: the position may be off by the tolerance.
  const bool overtaken = !exact_ && last_end_ - packet.time >= std::max(duration, kMostJitter);
  if (overtaken || (exact_ && behind > half)) {
    ++counted_.late;
    return true;
  }
  // Only whole packets can be left out: half of one is as near as it gets.
  if (exact_ || behind <= std::max(kTolerance, half) + kStill) return false;
  ++counted_.dropped;
  is_fast_ = true;
  // It isn't missing.
  last_end_ = packet.time + duration;
  return true;
}

void opus_line::fill_before(const piece& packet) {
  const media_time ahead = packet.time - position_;
  // By the sender's own times. The room of a whole packet is made up for at once.
  const media_time apart = packet.time - last_end_;
  const bool is_gap = apart >= kMostJitter;
  const bool is_lost = is_gap && apart >= last_.duration() - kOpusStep;
  // Where a packet was left out, the half of it that was too much is no drift the other way.
  const media_time tolerated =
      is_fast_ ? std::max(kTolerance, packet.about.duration() / 2) : kTolerance;
  if (ahead <= (exact_ || is_lost ? 0ns : tolerated)) return;
  if (exact_ || is_gap) return silence(nearest_steps(ahead), counted_.filled);
  // It was drift that came so far: as little as is enough, because every millisecond is heard.
  is_fast_ = false;
  ++counted_.inserted;
  silence(covering_steps(ahead - kTolerance), counted_.inserted_time);
}

void opus_line::silence(int64_t steps, media_time& counted) {
  while (steps > 0 && sink_) {
    // Up to the next cut, which then is met to the step.
    const int64_t part =
        cuts_.empty() ? steps : std::min(steps, nearest_steps(cuts_.front().at - position_));
    const opus_silence packet = silence_like(last_, part);
    counted += packet.duration;
    emit(packet.bytes, packet.duration);
    steps -= packet.duration / kOpusStep;
  }
}

void opus_line::emit(const shared_bytes& bytes, media_time duration) {
  sink_->on_sound({bytes, format_, position_, position_, duration, true, std::nullopt});
  position_ += duration;
  // The shortest there is: when not even that belongs before a cut, nothing does.
  switch_before(kOpusStep);
}

// Makes the cuts that lie before the larger part of what comes next.
void opus_line::switch_before(media_time duration) {
  while (sink_ && !cuts_.empty() && (cuts_.front().at - position_) * 2 <= duration) {
    sink_->on_sound_end();
    sink_ = std::move(cuts_.front().next);
    cuts_.pop_front();
  }
  // What had been heard of an end that lies ahead no longer counts.
  if (!sink_) cuts_.clear();
}

}  // namespace zelta::core_service::media
