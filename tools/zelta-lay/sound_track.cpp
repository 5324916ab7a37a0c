// SPDX-License-Identifier: Apache-2.0
#include "sound_track.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace zelta::lay {
namespace {

constexpr int kChannels = 2;
// In a file a step below that is a rounding of times; from one to the next, what one encodes less.
constexpr int64_t kStepSamples = kSampleRate / 100;
constexpr int64_t kJoinSamples = kSampleRate / 400;
constexpr int64_t kSeekUs = 2000000;

int64_t samples_of(int64_t us) {
  return av_rescale(us, kSampleRate, kSecond);
}

int64_t pairs_in(const std::vector<float>& samples) {
  return static_cast<int64_t>(samples.size()) / kChannels;
}

// Makes a step of the wave a slope: `by` is added to the first sample from `at` on, and ever less
// to those behind.
void slope(std::vector<float>& samples, int64_t at, const float (&by)[kChannels]) {
  const int64_t count = std::min(kFadeSamples, pairs_in(samples) - at);
  for (int64_t i = 0; i < count * kChannels; ++i) {
    const int64_t pair = i / kChannels;
    const float left = static_cast<float>(count - pair) / static_cast<float>(count);
    samples[static_cast<size_t>(at * kChannels + i)] += by[i % kChannels] * left;
  }
}

}  // namespace

sound_track::sound_track(const user& of, problems& found) : walk_(of, AVMEDIA_TYPE_AUDIO, found) {}

bool sound_track::open_next(int64_t first, int64_t end) {
  const int64_t first_us = av_rescale(first, kSecond, kSampleRate);
  if (!walk_.open_next(first_us, av_rescale(end, kSecond, kSampleRate))) return false;
  // What it holds is of the file before.
  resampler_.reset();
  is_first_ = true;
  if (first_us - walk_.current().begin_us > kSeekUs) walk_.seek(first_us - kSeekUs / 2);
  return true;
}

bool sound_track::is_resampled(const AVFrame& frame) {
  if (resampler_ != nullptr && frame.format == resampled_format_ &&
      frame.sample_rate == resampled_rate_ && frame.ch_layout.nb_channels == resampled_channels_) {
    return true;
  }
  AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
  // The function takes it as it is, and lacks the const.
  auto* const own = const_cast<AVChannelLayout*>(&frame.ch_layout);
  SwrContext* made = nullptr;
  const int result =
      swr_alloc_set_opts2(&made, &stereo, AV_SAMPLE_FMT_FLT, kSampleRate, own,
                          static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
  resampler_.reset(made);
  if (result < 0) return false;
  // One channel is as loud in each of two as it was alone; the library would take 3 dB off.
  const double both[kChannels] = {1, 1};
  if (frame.ch_layout.nb_channels == 1 && swr_set_matrix(made, both, 1) < 0) return false;
  if (swr_init(made) < 0) return false;
  resampled_format_ = frame.format;
  resampled_rate_ = frame.sample_rate;
  resampled_channels_ = frame.ch_layout.nb_channels;
  return true;
}

bool sound_track::take(const AVFrame& frame) {
  if (!is_resampled(frame)) {
    resampler_.reset();
    return false;
  }
  const int room = std::max(swr_get_out_samples(resampler_.get(), frame.nb_samples), 0);
  decoded_.resize(static_cast<size_t>(room) * kChannels);
  auto* out = reinterpret_cast<uint8_t*>(decoded_.data());
  const int made =
      swr_convert(resampler_.get(), &out, room,
                  const_cast<const uint8_t**>(frame.extended_data),  // its prototype lacks a const
                  frame.nb_samples);
  decoded_.resize(static_cast<size_t>(std::max(made, 0)) * kChannels);
  lay_at(samples_of(frame.pts));
  return true;
}

// What was decoded, at its sample, or right behind what was before when the step is small: it would
// be heard as a click.
void sound_track::lay_at(int64_t at) {
  if (decoded_.empty()) return;
  const int64_t step = is_first_ ? kJoinSamples : kStepSamples;
  const bool joins = !is_silent_ && std::abs(at - decoded_end_) <= step;
  is_first_ = false;
  // What was heard already isn't heard twice.
  const int64_t twice = joins ? 0 : std::clamp<int64_t>(decoded_end_ - at, 0, pairs_in(decoded_));
  decoded_.erase(decoded_.begin(), decoded_.begin() + twice * kChannels);
  decoded_at_ = joins ? decoded_end_ : at + twice;
  if (decoded_.empty()) return;
  if (decoded_at_ > decoded_end_) ring_out();
  if (!joins) slope(decoded_, 0, {last_[0] - decoded_[0], last_[1] - decoded_[1]});
  is_silent_ = false;
  decoded_end_ = decoded_at_ + pairs_in(decoded_);
  std::copy(decoded_.end() - kChannels, decoded_.end(), std::begin(last_));
}

// Behind decoded_end_ nothing follows at once.
void sound_track::ring_out() {
  if (is_silent_) return;
  is_silent_ = true;
  // Of a short stretch of sound the one before may still fade.
  if (rest_.empty()) rest_at_ = decoded_end_;
  const int64_t at = decoded_end_ - rest_at_;
  rest_.resize(static_cast<size_t>(at + kFadeSamples) * kChannels);
  slope(rest_, at, last_);
  last_[0] = last_[1] = 0;
}

void sound_track::add_rest(int64_t first, int64_t end, float* to) {
  const int64_t until = std::min(end, rest_at_ + pairs_in(rest_));
  for (int64_t i = std::max(first, rest_at_) * kChannels; i < until * kChannels; ++i) {
    to[i - first * kChannels] += rest_[static_cast<size_t>(i - rest_at_ * kChannels)];
  }
  if (until <= rest_at_) return;
  rest_.erase(rest_.begin(), rest_.begin() + (until - rest_at_) * kChannels);
  rest_at_ = until;
}

bool sound_track::decode_more(int64_t first, int64_t end) {
  while (true) {
    if (!walk_.is_open() && !open_next(first, end)) return false;
    if (!walk_.next_frame(*frame_)) continue;
    if (take(*frame_)) return true;
    walk_.add_fault("its samples can't be converted");
    walk_.close();
  }
}

void sound_track::add(int64_t first, int count, float* to) {
  const int64_t end = first + count;
  while (true) {
    const int64_t have = pairs_in(decoded_);
    const int64_t from = std::max(first, decoded_at_);
    const int64_t until = std::min(end, decoded_at_ + have);
    for (int64_t i = from * kChannels; i < until * kChannels; ++i) {
      to[i - first * kChannels] += decoded_[static_cast<size_t>(i - decoded_at_ * kChannels)];
    }
    if (have > 0 && decoded_at_ + have >= end) break;
    // What faded before the film isn't kept while the place where that begins is looked for.
    if (rest_at_ + pairs_in(rest_) <= first) rest_.clear();
    // What begins behind the end, and close enough to be joined, is known before this rings out.
    if (!decode_more(first, end + kStepSamples)) {
      decoded_.clear();
      ring_out();
      // What comes too late for this stretch of the film isn't heard in the next one.
      decoded_end_ = std::max(decoded_end_, end);
      break;
    }
  }
  add_rest(first, end, to);
}

}  // namespace zelta::lay
