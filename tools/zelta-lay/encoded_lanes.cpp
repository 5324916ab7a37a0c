// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <list>
#include <vector>

#include "encoder.h"
#include "lane.h"
#include "limiter.h"
#include "sound_track.h"

namespace zelta::lay {
namespace {

constexpr int kBlock = 4800;

class picture_lane : public lane {
 public:
  picture_lane(const session& of, const picture_plan& plan, const span& what, film_file& into,
               problems& found)
      : composer_(of, plan, found),
        encoder_(
            open_picture_encoder(plan.width, plan.height, plan.fps, into.wants_global_headers()),
            into),
        from_us_(what.from_us),
        fps_(plan.fps),
        frames_(std::max<int64_t>(1, av_rescale(what.length_us(), plan.fps, kSecond))) {}

  int64_t reached_us() const override { return av_rescale(next_, kSecond, fps_); }

  bool advance() override {
    if (next_ == frames_) {
      encoder_.encode(nullptr);
      return false;
    }
    AVFrame& picture = composer_.at(from_us_ + reached_us());
    picture.pts = next_++;
    encoder_.encode(&picture);
    return true;
  }

 private:
  composer composer_;
  encoder encoder_;
  int64_t from_us_;
  int fps_;
  int64_t frames_;
  int64_t next_ = 0;
};

class sound_lane : public lane {
 public:
  sound_lane(const session& of, const span& what, film_file& into, problems& found)
      : encoder_(open_sound_encoder(into.wants_global_headers()), into),
        limiter_(encoder_.frame_size()),
        first_(av_rescale(what.from_us, kSampleRate, kSecond)),
        samples_(av_rescale(what.length_us(), kSampleRate, kSecond)) {
    for (const user& u : of.users) {
      if (u.has_sound()) tracks_.emplace_back(u, found);
    }
  }

  int64_t reached_us() const override { return av_rescale(next_, kSecond, kSampleRate); }

  bool advance() override {
    const auto count = static_cast<int>(std::min<int64_t>(kBlock, samples_ - next_));
    if (count > 0) {
      std::fill(block_.begin(), block_.end(), 0.0F);
      for (sound_track& t : tracks_) t.add(first_ + next_, count, block_.data());
      fade_edges(count);
      limiter_.push(block_.data(), count, next_);
      next_ += count;
    } else {
      limiter_.finish();
    }
    while (limiter_.pull(*frame_)) encoder_.encode(frame_.get());
    if (count > 0) return true;
    encoder_.encode(nullptr);
    return false;
  }

 private:
  // A film that is cut from a recording begins and ends in the middle of sound.
  void fade_edges(int count) {
    for (int64_t i = 0; i < count; ++i) {
      const int64_t from_edge = std::min(next_ + i, samples_ - 1 - next_ - i);
      if (from_edge >= kFadeSamples) continue;
      const float left = static_cast<float>(from_edge) / static_cast<float>(kFadeSamples);
      block_[static_cast<size_t>(2 * i)] *= left;
      block_[static_cast<size_t>(2 * i + 1)] *= left;
    }
  }

  encoder encoder_;
  limiter limiter_;
  std::list<sound_track> tracks_;
  std::vector<float> block_ = std::vector<float>(size_t{2} * kBlock);
  av_ptr<AVFrame> frame_ = make_frame();
  int64_t first_;
  int64_t samples_;
  int64_t next_ = 0;
};

}  // namespace

std::unique_ptr<lane> encoded_pictures(const session& of, const picture_plan& plan,
                                       const span& what, film_file& into, problems& found) {
  return std::make_unique<picture_lane>(of, plan, what, into, found);
}

std::unique_ptr<lane> encoded_sound(const session& of, const span& what, film_file& into,
                                    problems& found) {
  return std::make_unique<sound_lane>(of, what, into, found);
}

}  // namespace zelta::lay
