// SPDX-License-Identifier: Apache-2.0
#include "sound_track.h"

#include <algorithm>
#include <cstdlib>

namespace zelta::lay {
namespace {

constexpr int kChannels = 2;
// A step below that is a rounding of times or a join of two files, and would be heard as a click.
constexpr int64_t kStepSamples = kSampleRate / 50;
constexpr int64_t kSeekUs = 2000000;

int64_t samples_of(int64_t us) {
  return av_rescale(us, kSampleRate, 1000000);
}

}  // namespace

sound_track::sound_track(const user& of, problems& found) : of_(of), found_(found) {}

sound_track::~sound_track() {
  close();
}

void sound_track::close() {
  if (reader_ != nullptr && !reader_->fault().empty()) {
    found_.add(current_->name + ", sound: " + reader_->fault());
  }
  reader_.reset();
}

bool sound_track::open_next(int64_t first, int64_t end) {
  for (; next_stretch_ < of_.stretches.size(); ++next_stretch_) {
    const stretch& s = of_.stretches[next_stretch_];
    if (samples_of(s.begin_us) >= end) return false;
    if (!s.has_sound() || samples_of(s.end_us) <= first) continue;
    current_ = &s;
    ++next_stretch_;
    std::string error;
    reader_ = stream_reader::open(s.path, AVMEDIA_TYPE_AUDIO, error);
    if (reader_ == nullptr) {
      found_.add(s.name + ", sound: " + error);
      return true;
    }
    const int64_t inside_us = av_rescale(first, 1000000, kSampleRate) - s.begin_us;
    if (inside_us > kSeekUs) reader_->seek(inside_us - kSeekUs / 2);
    return true;
  }
  return false;
}

bool sound_track::take(const AVFrame& frame) {
  if (frame.format != resampled_format_ || frame.sample_rate != resampled_rate_ ||
      frame.ch_layout.nb_channels != resampled_channels_) {
    // The function takes both as they are, and lacks the const.
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    auto* const own = const_cast<AVChannelLayout*>(&frame.ch_layout);
    SwrContext* made = nullptr;
    resampler_.reset();
    if (swr_alloc_set_opts2(&made, &stereo, AV_SAMPLE_FMT_FLT, kSampleRate, own,
                            static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0,
                            nullptr) < 0) {
      return false;
    }
    resampler_.reset(made);
    if (swr_init(made) < 0) return false;
    resampled_format_ = frame.format;
    resampled_rate_ = frame.sample_rate;
    resampled_channels_ = frame.ch_layout.nb_channels;
  }
  const int room = swr_get_out_samples(resampler_.get(), frame.nb_samples);
  decoded_.resize(static_cast<size_t>(std::max(room, 0)) * kChannels);
  auto* out = reinterpret_cast<uint8_t*>(decoded_.data());
  const int made =
      swr_convert(resampler_.get(), &out, room,
                  const_cast<const uint8_t**>(frame.extended_data),  // its prototype lacks a const
                  frame.nb_samples);
  decoded_.resize(static_cast<size_t>(std::max(made, 0)) * kChannels);
  const int64_t at = samples_of(current_->begin_us + frame.pts);
  decoded_at_ = std::abs(at - decoded_end_) <= kStepSamples ? decoded_end_ : at;
  // What another file already has isn't heard twice.
  if (decoded_at_ < decoded_end_) {
    const int64_t twice = std::min<int64_t>(decoded_end_ - decoded_at_, std::max(made, 0));
    decoded_.erase(decoded_.begin(), decoded_.begin() + twice * kChannels);
    decoded_at_ += twice;
  }
  if (!decoded_.empty()) {
    decoded_end_ = decoded_at_ + static_cast<int64_t>(decoded_.size()) / kChannels;
  }
  return true;
}

bool sound_track::decode_more(int64_t first, int64_t end) {
  while (true) {
    if (reader_ == nullptr) {
      if (!open_next(first, end)) return false;
      continue;
    }
    if (!reader_->next_frame(*frame_)) {
      close();
      continue;
    }
    if (take(*frame_)) return true;
    found_.add(current_->name + ", sound: its samples can't be converted");
    close();
  }
}

void sound_track::add(int64_t first, int count, float* to) {
  const int64_t end = first + count;
  while (true) {
    const int64_t have = static_cast<int64_t>(decoded_.size()) / kChannels;
    const int64_t from = std::max(first, decoded_at_);
    const int64_t until = std::min(end, decoded_at_ + have);
    for (int64_t i = from * kChannels; i < until * kChannels; ++i) {
      to[i - first * kChannels] += decoded_[static_cast<size_t>(i - decoded_at_ * kChannels)];
    }
    if (have > 0 && decoded_at_ + have >= end) return;
    if (!decode_more(first, end)) {
      decoded_.clear();
      return;
    }
  }
}

}  // namespace zelta::lay
