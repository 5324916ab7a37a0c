// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/sound_line.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::media {
namespace {

using namespace std::chrono_literals;

constexpr media_time kKeepLimit = 5s;
// Senders' clocks and times are not exact to the sample. Half of what an ear and an eye together
// notice is left alone, what is more is set right at once.
constexpr media_time kTolerance = 20ms;

constexpr media_time span_of(int64_t frames) {
  return media_time(frames * 1'000'000'000 / kSampleRate);
}
constexpr int64_t frames_of(media_time span) {
  return (span.count() * kSampleRate + (span.count() < 0 ? -500'000'000 : 500'000'000)) /
         1'000'000'000;
}

}  // namespace

void sound_line::push(media_time time, const int16_t* samples, size_t frames) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const media_time end = time + span_of(static_cast<int64_t>(frames));
  last_heard_ = std::max(end, last_heard_.value_or(end));
  if (sink_) return place_locked(time, samples, frames);
  kept_.push_back({time, std::vector<int16_t>(samples, samples + frames * channels_)});
  while (kept_.back().time - kept_.front().time > kKeepLimit) kept_.pop_front();
}

std::optional<media_time> sound_line::first_kept() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (kept_.empty()) return std::nullopt;
  return kept_.front().time;
}

std::optional<media_time> sound_line::last_heard() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return last_heard_;
}

void sound_line::start(media_time from, std::shared_ptr<sound_sink> to) {
  const std::lock_guard<std::mutex> guard(mutex_);
  sink_ = std::move(to);
  cuts_.clear();
  origin_ = from;
  frames_ = 0;
  exact_ = true;
  block_.clear();
  for (const piece& kept : std::exchange(kept_, {})) {
    place_locked(kept.time, kept.samples.data(), kept.samples.size() / channels_);
  }
}

void sound_line::cut(media_time at, std::shared_ptr<sound_sink> next) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!sink_) return;
  cuts_.push_back({at, std::move(next)});
  while (!cuts_.empty() && frames_before_cut_locked() == 0) switch_locked();
}

void sound_line::fill_to(media_time until) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!sink_) return;
  const int64_t missing = frames_of(until - position_locked());
  if (missing <= 0) return;
  exact_ = true;
  silence_locked(static_cast<size_t>(missing));
}

std::optional<media_time> sound_line::position() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!sink_) return std::nullopt;
  return position_locked();
}

media_time sound_line::position_locked() const {
  return origin_ + span_of(frames_);
}

void sound_line::place_locked(media_time time, const int16_t* samples, size_t frames) {
  const media_time ahead = time - position_locked();
  const bool in_place = !exact_ && ahead <= kTolerance && ahead >= -kTolerance;
  if (!in_place && ahead > media_time::zero()) {
    if (frames_ > 0 && ahead <= longest_gap_) {
      flush_locked();
      origin_ = time;
      frames_ = 0;
    } else {
      silence_locked(static_cast<size_t>(frames_of(ahead)));
    }
  } else if (!in_place) {
    const auto late = std::min(static_cast<size_t>(-frames_of(ahead)), frames);
    samples += late * channels_;
    frames -= late;
  }
  if (frames == 0 || !sink_) return;
  exact_ = false;
  emit_locked(samples, frames);
}

void sound_line::silence_locked(size_t frames) {
  const std::vector<int16_t> silence(block_frames_ * channels_);
  while (frames > 0 && sink_) {
    const size_t part = std::min(frames, block_frames_);
    emit_locked(silence.data(), part);
    frames -= part;
  }
}

size_t sound_line::frames_before_cut_locked() const {
  return static_cast<size_t>(std::max<int64_t>(frames_of(cuts_.front().at - position_locked()), 0));
}

void sound_line::emit_locked(const int16_t* samples, size_t frames) {
  while (frames > 0 && sink_) {
    const size_t part = cuts_.empty() ? frames : std::min(frames, frames_before_cut_locked());
    append_locked(samples, part);
    samples += part * channels_;
    frames -= part;
    while (!cuts_.empty() && frames_before_cut_locked() == 0) switch_locked();
  }
}

void sound_line::append_locked(const int16_t* samples, size_t frames) {
  while (frames > 0) {
    const size_t room = block_frames_ - block_.size() / channels_;
    const size_t part = std::min(room, frames);
    block_.insert(block_.end(), samples, samples + part * channels_);
    frames_ += static_cast<int64_t>(part);
    samples += part * channels_;
    frames -= part;
    if (part == room) flush_locked();
  }
}

void sound_line::flush_locked() {
  if (block_.empty()) return;
  const auto frames = static_cast<int64_t>(block_.size() / channels_);
  sink_->on_sound(origin_ + span_of(frames_ - frames), block_.data(), block_.size() / channels_);
  block_.clear();
}

void sound_line::switch_locked() {
  flush_locked();
  sink_->on_sound_end();
  sink_ = std::move(cuts_.front().next);
  cuts_.pop_front();
  // What had been heard of an end that lies ahead no longer counts.
  if (!sink_) cuts_.clear();
}

}  // namespace zelta::core_service::media
