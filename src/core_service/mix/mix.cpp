// SPDX-License-Identifier: Apache-2.0
#include "core_service/mix/mix.h"

#include <algorithm>
#include <utility>

#include "core_service/mix/still_picture.h"

namespace zelta::core_service::mix {
namespace {

using namespace std::chrono_literals;
using media::media_time;

// Decoding and mixing take their time behind the users' jitter buffers.
constexpr media_time kMixingTime = 300ms;
// A mix that comes to no more than this behind the clock is stuck for good.
constexpr media_time kStallLimit = 10s;

}  // namespace

std::unique_ptr<mix> mix::make(const recording_plan& plan, media_time lateness,
                               const backgrounds& images, const files::destination& to,
                               engine_link& engine, events told, std::string& error) {
  std::unique_ptr<mix> made(new mix(plan, lateness, to, engine, std::move(told)));
  if (!made->build(images, error)) return nullptr;
  return made;
}

mix::mix(const recording_plan& plan, media_time lateness, const files::destination& to,
         engine_link& engine, events told)
    : plan_(plan),
      destination_(to),
      link_(engine),
      events_(std::move(told)),
      poster_(destination_.loop),
      latency_(lateness + kMixingTime),
      h264_(media::find_codec("h264")),
      progress_(media::now().count()) {}

mix::~mix() {
  // Its threads feed what is declared before it.
  graph_.reset();
}

bool mix::build(const backgrounds& images, std::string& error) {
  const bool sound_file = plan_.mix_sound && plan_.sound_out != sound_frames::kMixedPcm;
  if (plan_.mix_video && sound_file && plan_.mix_apart) {
    make_series(true, false);
    make_series(false, true);
  } else if (plan_.mix_video || sound_file) {
    make_series(plan_.mix_video, sound_file);
  }
  if (plan_.sound_out == sound_frames::kMixedPcm) {
    frame_line_.emplace(static_cast<size_t>(plan_.channels), media_time::zero(),
                        media::kFrameBlock);
    frames_ = std::make_shared<frame_sender>(frame_labels{0, plan_.avsync_type}, link_);
  }
  mix_graph::outputs to;
  to.video = [this](media::media_sample sample) {
    progress_ = sample.time.count();
    const auto shared = std::make_shared<media::media_sample>(std::move(sample));
    poster_.post([this, shared] { series_.front()->on_video(*shared, *h264_); });
  };
  to.sound = [this](media_time time, const int16_t* samples, size_t frames) {
    on_sound(time, samples, frames);
  };
  to.failed = [this](const std::string& why) { events_.failed("the mix failed: " + why, true); };
  graph_ = mix_graph::make(
      {plan_.mix_video, plan_.mix_sound, plan_.mix_width, plan_.mix_height, plan_.mix_fps,
       plan_.mix_kbps, plan_.mix_high_profile, plan_.channels, latency_},
      destination_.loop, std::move(to), error);
  if (!graph_) return false;
  std::string fault;
  const auto load = [this, &fault](const std::string& path) {
    media::sample_ptr image = path.empty() ? nullptr : load_picture(path, fault);
    if (!path.empty() && !image) destination_.log.warn("background " + fault);
    return image;
  };
  canvas_image_ = load(images.canvas);
  user_image_ = load(images.user);
  show_canvas();
  return true;
}

void mix::make_series(bool video, bool sound) {
  files::series_settings files;
  files.prefix = "mix";
  files.video = video;
  files.sound = sound;
  files.channels = plan_.channels;
  files.sound_bits_per_second = plan_.sound_bits_per_second;
  files.chunk = plan_.chunk;
  files.lateness = latency_;
  files::destination to = destination_;
  to.log = to.log.with("mix");
  series_.push_back(std::make_unique<files::file_series>(
      files, std::move(to),
      files::file_series::events{[this] { graph_->request_key_frame(); }, events_.failed,
                                 [this] { on_stopped(); }}));
  if (sound) sound_files_ = series_.back().get();
}

// On the mixer's thread.
void mix::on_sound(media_time time, const int16_t* samples, size_t frames) {
  progress_ = time.count();
  if (sound_files_ != nullptr) sound_files_->sound()->push(time, samples, frames);
  if (!frame_line_ || !serving_) return;
  if (!frame_line_->position()) {
    frame_line_->start(time, std::make_shared<pcm_sink>(frames_, plan_.channels));
  }
  frame_line_->push(time, samples, frames);
}

// ---- Who is in it, and where ---------------------------------------------------------------

std::shared_ptr<media::consumer> mix::add_user(uint32_t uid) {
  // One who comes back at once takes the place at once.
  for (member& user : users_) {
    if (user.uid == uid && user.left) user.left = media_time::zero();
  }
  let_go(media::now() - latency_);
  users_.push_back({uid, graph_->add_user(uid), std::nullopt});
  const media::sample_ptr background = background_of(uid);
  graph_->set_substitute(uid, background.get());
  arrange();
  return users_.back().input;
}

void mix::remove_user(uint32_t uid) {
  for (member& user : users_) {
    if (user.uid == uid && !user.left) user.left = media::now();
  }
}

// Of those who have left: whose media has come out of the mix.
void mix::let_go(media_time left_before) {
  const auto gone = [left_before](const member& user) {
    return user.left && *user.left < left_before;
  };
  if (std::none_of(users_.begin(), users_.end(), gone)) return;
  for (const member& user : users_) {
    if (gone(user)) graph_->remove_user(user.input.get());
  }
  users_.erase(std::remove_if(users_.begin(), users_.end(), gone), users_.end());
  arrange();
}

media::sample_ptr mix::background_of(uint32_t uid) {
  const auto own = user_images_.find(uid);
  GstSample* const image = own != user_images_.end() ? own->second.get() : user_image_.get();
  return media::sample_ptr(image != nullptr ? gst_sample_ref(image) : nullptr);
}

void mix::set_layout(const recording::mixing_layout& layout) {
  layout_ = layout;
  std::vector<std::string> warnings;
  static_cast<void>(layout_tiles(layout, plan_.mix_width, plan_.mix_height, warnings));
  if (!layout.background_color.empty() && !parse_colour(layout.background_color)) {
    warnings.push_back("layout: the background colour \"" + layout.background_color +
                       "\" should be like #1a2b3c; it is black");
  }
  for (const std::string& text : warnings) destination_.log.warn(text);
  show_canvas();
  arrange();
}

void mix::set_user_background(uint32_t uid, const std::string& path) {
  if (path.empty()) {
    user_images_.erase(uid);
  } else {
    std::string fault;
    media::sample_ptr image = load_picture(path, fault);
    if (!image)
      return destination_.log.warn("background of user " + std::to_string(uid) + ": " + fault);
    user_images_[uid] = std::move(image);
  }
  const media::sample_ptr background = background_of(uid);
  graph_->set_substitute(uid, background.get());
}

void mix::arrange() {
  std::vector<std::string> told_already;
  std::vector<uint32_t> uids;
  for (const member& user : users_) uids.push_back(user.uid);
  graph_->set_tiles(layout_
                        ? layout_tiles(*layout_, plan_.mix_width, plan_.mix_height, told_already)
                        : grid_tiles(uids, plan_.mix_width, plan_.mix_height));
}

void mix::show_canvas() {
  if (!plan_.mix_video) return;
  const uint32_t colour = layout_ ? parse_colour(layout_->background_color).value_or(0) : 0;
  media::sample_ptr picture =
      canvas_image_ ? scaled_picture(canvas_image_.get(), plan_.mix_width, plan_.mix_height)
                    : nullptr;
  if (!picture) picture = plain_picture(colour, plan_.mix_width, plan_.mix_height);
  if (picture) graph_->set_canvas(picture.get());
}

// ---- The service ---------------------------------------------------------------------------

void mix::start_service() {
  progress_ = media::now().count();
  serving_ = true;
  for (const auto& files : series_) files->start();
}

void mix::stop_service(const files::recording_end& why) {
  if (!serving_.exchange(false)) return;
  const media_time at = media::now();
  for (const auto& files : series_) files->stop(why, at, latency_ + 1s);
}

void mix::finish(const files::recording_end& why) {
  finishing_ = true;
  serving_ = false;
  if (series_.empty()) return poster_.post([this] { events_.finished(); });
  // One that was stopped already says again when it is complete.
  const media_time at = media::now();
  for (const auto& files : series_) files->stop(why, at, latency_ + 1s);
}

void mix::halve_pictures(bool halved) {
  graph_->halve_pictures(halved);
}

void mix::abandon_files() {
  for (const auto& files : series_) files->abandon();
}

void mix::on_stopped() {
  if (finishing_ && ++stopped_ == series_.size()) events_.finished();
}

void mix::tick() {
  let_go(media::now() - latency_);
  graph_->tick();
  for (const auto& files : series_) files->tick();
  if (serving_ && !finishing_ && media::now() - media_time(progress_) > latency_ + kStallLimit) {
    events_.failed("the mix has stopped: nothing was mixed for 10 s", true);
  }
}

void mix::tell_progress() {
  for (const auto& files : series_) files->tell_progress();
}

}  // namespace zelta::core_service::mix
