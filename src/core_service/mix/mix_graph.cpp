// SPDX-License-Identifier: Apache-2.0
#include "core_service/mix/mix_graph.h"

#include <algorithm>
#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include "core_service/mix/still_picture.h"

namespace zelta::core_service::mix {
namespace {

using namespace std::chrono_literals;
using media::child;
using media::media_time;

// A picture that is older than this is no longer what the user looks like.
constexpr media_time kPicturePatience = 2s;
// The mixer passes over pictures that come too close upon each other, so one that doesn't move is
// given again.
constexpr media_time kStillInterval = 500ms;
// Two seconds between key frames: where a file may be cut, and seeking lands.
constexpr int kKeyFrameSeconds = 2;
// Two seconds of pictures at most wait for their time; more is a stall, and the oldest go.
constexpr const char* kSource = "appsrc is-live=true format=time max-bytes=0 ";

std::string latency_text(media_time latency) {
  return std::to_string(latency.count());
}

std::string video_description(const mix_graph::settings& s) {
  return std::string(kSource) +
         "name=canvas ! compositor name=pictures background=black "
         "force-live=true latency=" +
         latency_text(s.latency) + " ! video/x-raw,format=I420,width=" + std::to_string(s.width) +
         ",height=" + std::to_string(s.height) + ",framerate=" + std::to_string(s.fps) +
         "/1,pixel-aspect-ratio=1/1,colorimetry=" + colorimetry_of(s.height) +
         " ! queue name=mixed max-size-buffers=10 max-size-bytes=0 max-size-time=0 "
         "! " +
         media::h264_encoder({s.kbps, s.fps * kKeyFrameSeconds, s.high_profile, "veryfast"}) +
         " ! h264parse ! video/x-h264,stream-format=avc,alignment=au ! appsink name=video "
         "sync=false async=false";
}

std::string raw_sound(int channels) {
  return "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=" +
         std::to_string(channels);
}

std::string sound_description(const mix_graph::settings& s) {
  return " audiotestsrc is-live=true wave=silence samplesperbuffer=960 ! " + raw_sound(s.channels) +
         " ! audiomixer name=sounds output-buffer-duration=20000000 latency=" +
         latency_text(s.latency) + " ! " + raw_sound(s.channels) +
         " ! appsink name=sound sync=false async=false";
}

void push_picture(GstElement* source, GstSample* picture, GstClockTime at) {
  GstBuffer* const buffer = gst_buffer_copy(gst_sample_get_buffer(picture));
  media::set_times(buffer, {at});
  const media::sample_ptr placed(
      gst_sample_new(buffer, gst_sample_get_caps(picture), nullptr, nullptr));
  gst_buffer_unref(buffer);
  gst_app_src_push_sample(GST_APP_SRC(source), placed.get());
}

std::string description_of(const mix_graph::settings& s) {
  return (s.video ? video_description(s) : "") + (s.sound ? sound_description(s) : "");
}

}  // namespace

// ---- One user ------------------------------------------------------------------------------

// The elements of one user: a source and what leads from it, linked to a pad of the mixer.
class mix_graph::input : public media::consumer {
 public:
  input(uint32_t uid, GstElement* pipeline, const settings& s)
      : uid_(uid),
        pictures_(s.video),
        sounds_(s.sound),
        base_(gst_element_get_base_time(pipeline)),
        half_picture_(std::chrono::nanoseconds(1s) / s.fps / 2),
        pipeline_(pipeline) {
    if (s.video) {
      picture_ = enter("pictures", std::string(kSource) +
                                       "name=in max-buffers=60 leaky-type=downstream ! "
                                       "aspectratiocrop name=crop");
      g_object_set(picture_.pad.get(), "alpha", 0.0, nullptr);
    }
    if (s.sound) {
      sound_ = enter("sounds", std::string(kSource) + "name=in caps=" + raw_sound(s.channels));
    }
    frame_bytes_ = sizeof(int16_t) * static_cast<size_t>(s.channels);
  }
  input(const input&) = delete;
  input& operator=(const input&) = delete;
  ~input() override = default;

  uint32_t uid() const { return uid_; }

  bool takes(media::form what) const override {
    return (what == media::form::kUprightPictures && pictures_) ||
           (what == media::form::kSound && sounds_);
  }

  // Media of a user who has left the mix is ignored.
  void on_upright_picture(GstSample* picture, media_time time) override {
    const std::lock_guard<std::mutex> guard(mutex_);
    latest_ = time;
    push_picture_locked(picture, time);
  }

  void on_sound(media_time time, const int16_t* samples, size_t frames) override {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto at = running_time(time);
    if (sound_.bin == nullptr || !at) return;
    GstBuffer* const buffer = gst_buffer_new_memdup(samples, frames * frame_bytes_);
    media::set_times(buffer, {*at, GST_CLOCK_TIME_NONE, frames * GST_SECOND / 48'000});
    gst_app_src_push_buffer(GST_APP_SRC(sound_.source), buffer);
  }

  void set_substitute(GstSample* picture) {
    const std::lock_guard<std::mutex> guard(mutex_);
    substitute_.reset(picture != nullptr ? gst_sample_ref(picture) : nullptr);
    substituted_ = media_time::zero();
  }

  void set_tile(const tile* where, unsigned layer) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (picture_.bin == nullptr) return;
    alpha_ = where != nullptr ? where->alpha : 0;
    if (where == nullptr) return;
    g_object_set(picture_.pad.get(), "xpos", where->x, "ypos", where->y, "width", where->width,
                 "height", where->height, "zorder", layer, "sizing-policy", where->crop ? 0 : 1,
                 nullptr);
    g_object_set(child(picture_.bin, "crop"), "aspect-ratio", where->crop ? where->width : 0,
                 where->crop ? where->height : 1, nullptr);
  }

  void tick(media_time latency) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (picture_.bin == nullptr) return;
    const bool live = media::now() - latest_ < kPicturePatience + latency;
    if (!live && substitute_ && media::now() - substituted_ > kStillInterval) {
      substituted_ = media::now();
      push_picture_locked(substitute_.get(), substituted_);
    }
    const bool seen = live || substitute_ != nullptr;
    g_object_set(picture_.pad.get(), "alpha", seen ? alpha_ : 0.0, nullptr);
  }

  // Nothing is mixed of the user any more.
  void leave() {
    const std::lock_guard<std::mutex> guard(mutex_);
    leave_locked(picture_);
    leave_locked(sound_);
  }

 private:
  struct entrance {
    GstElement* bin = nullptr;  // borrowed from the pipeline; null: there is none
    GstElement* source = nullptr;
    GstElement* mixer = nullptr;
    media::pad_ptr pad;  // of the mixer
  };

  entrance enter(const char* mixer, const std::string& description) {
    entrance e;
    std::string error;
    media::element_ptr made = media::make_bin(description, error);
    e.mixer = child(pipeline_, mixer);
    // The elements of a description that worked once are installed.
    if (!made || e.mixer == nullptr) return {};
    e.pad.reset(gst_element_request_pad_simple(e.mixer, "sink_%u"));
    e.bin = media::add(pipeline_, std::move(made));
    e.source = child(e.bin, "in");
    const media::pad_ptr out(gst_element_get_static_pad(e.bin, "src"));
    // Unchecked: before the first picture nothing is known that could be compared.
    gst_pad_link_full(out.get(), e.pad.get(), GST_PAD_LINK_CHECK_NOTHING);
    gst_element_sync_state_with_parent(e.bin);
    return e;
  }

  void leave_locked(entrance& e) {
    if (e.bin == nullptr) return;
    // The pad first: a source that waits for room in it would not stop.
    gst_element_release_request_pad(e.mixer, e.pad.get());
    gst_element_set_state(e.bin, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(pipeline_), e.bin);
    e = {};
  }

  std::optional<GstClockTime> running_time(media_time time) const {
    const media_time at = time - media_time(static_cast<int64_t>(base_));
    if (at < media_time::zero()) return std::nullopt;
    return static_cast<GstClockTime>(at.count());
  }

  void push_picture_locked(GstSample* picture, media_time time) {
    // A mixed picture shows what comes during its time from its beginning on. Half a picture later,
    // the error lies on both sides of the truth.
    const auto at = running_time(time + half_picture_);
    if (picture_.bin == nullptr || !at) return;
    push_picture(picture_.source, picture, *at);
  }

  const uint32_t uid_;
  const bool pictures_;
  const bool sounds_;
  const GstClockTime base_;
  const media_time half_picture_;
  GstElement* const pipeline_;  // outlives what is in it
  size_t frame_bytes_ = 2;
  std::mutex mutex_;
  entrance picture_;
  entrance sound_;
  media_time latest_{};
  double alpha_ = 0;
  media::sample_ptr substitute_;
  media_time substituted_{};
};

// ---- The mix -------------------------------------------------------------------------------

std::unique_ptr<mix_graph> mix_graph::make(const settings& wanted, base::event_loop& loop,
                                           outputs to, std::string& error) {
  if (wanted.video && media::h264_encoder({1, 1, false, "veryfast"}).empty()) {
    error =
        "no H.264 encoder: install gstreamer1.0-plugins-ugly (x264enc) or gstreamer1.0-plugins-bad "
        "(openh264enc)";
    return nullptr;
  }
  media::element_ptr pipeline = media::make_pipeline(description_of(wanted), error);
  if (!pipeline) return nullptr;
  return std::unique_ptr<mix_graph>(
      new mix_graph(std::move(pipeline), wanted, loop, std::move(to)));
}

mix_graph::mix_graph(media::element_ptr pipeline, const settings& wanted, base::event_loop& loop,
                     outputs to)
    : settings_(wanted), pipeline_(std::move(pipeline)) {
  media::use_system_clock(pipeline_.get());
  // Known before it plays, because users may come at once.
  gst_element_set_start_time(pipeline_.get(), GST_CLOCK_TIME_NONE);
  gst_element_set_base_time(pipeline_.get(), static_cast<GstClockTime>(media::now().count()));
  watch_.emplace(pipeline_.get(), loop,
                 media::bus_watch::events{
                     nullptr, [failed = to.failed](const std::string& why, const std::string& from,
                                                   bool /*disk*/) { failed(from + ": " + why); }});
  connect(std::move(to));
  if (settings_.video) {
    const media::sample_ptr black = plain_picture(0, settings_.width, settings_.height);
    set_canvas(black.get());
  }
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

mix_graph::~mix_graph() {
  for (const auto& user : users_) user->leave();
  watch_.reset();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

void mix_graph::connect(outputs to) {
  GstElement* const pipeline = pipeline_.get();
  if (settings_.video) {
    leave_out_halves();
    force_asked_key_frames();
    media::on_samples(
        child(pipeline, "video"),
        [pipeline, video = std::move(to.video)](GstSample* from) {
          media::media_sample sample;
          if (media::take_sample(from, pipeline, sample)) video(std::move(sample));
        },
        nullptr);
  }
  if (!settings_.sound) return;
  const size_t frame_bytes = sizeof(int16_t) * static_cast<size_t>(settings_.channels);
  media::on_samples(
      child(pipeline, "sound"),
      [pipeline, frame_bytes, sound = std::move(to.sound)](GstSample* from) {
        media::media_sample sample;
        GstMapInfo map{};
        if (!media::take_sample(from, pipeline, sample) ||
            gst_buffer_map(sample.buffer.get(), &map, GST_MAP_READ) == FALSE) {
          return;
        }
        sound(sample.time, reinterpret_cast<const int16_t*>(map.data), map.size / frame_bytes);
        gst_buffer_unmap(sample.buffer.get(), &map);
      },
      nullptr);
}

std::shared_ptr<media::consumer> mix_graph::add_user(uint32_t uid) {
  return users_.emplace_back(std::make_shared<input>(uid, pipeline_.get(), settings_));
}

void mix_graph::remove_user(const media::consumer* user) {
  const auto found = std::find_if(users_.begin(), users_.end(),
                                  [user](const auto& one) { return one.get() == user; });
  if (found == users_.end()) return;
  (*found)->leave();
  users_.erase(found);
}

void mix_graph::set_tiles(const std::vector<tile>& tiles) {
  for (const auto& user : users_) {
    const auto where = std::find_if(tiles.begin(), tiles.end(),
                                    [&user](const tile& t) { return t.uid == user->uid(); });
    // The canvas is layer 0.
    const auto layer = static_cast<unsigned>(where - tiles.begin()) + 1;
    user->set_tile(where != tiles.end() ? &*where : nullptr, layer);
  }
}

void mix_graph::set_canvas(GstSample* picture) {
  canvas_.reset(gst_sample_ref(picture));
  show_canvas();
}

void mix_graph::show_canvas() {
  if (!canvas_) return;
  shown_ = media::now();
  const media_time base(static_cast<int64_t>(gst_element_get_base_time(pipeline_.get())));
  push_picture(child(pipeline_.get(), "canvas"), canvas_.get(),
               static_cast<GstClockTime>((shown_ - base).count()));
}

void mix_graph::set_substitute(uint32_t uid, GstSample* picture) {
  for (const auto& user : users_) {
    if (user->uid() == uid) user->set_substitute(picture);
  }
}

void mix_graph::request_key_frame() {
  if (!settings_.video || media::now() - key_asked_ < kStillInterval) return;
  key_asked_ = media::now();
  // Of this very moment, which the encoder has yet to come to.
  const media_time base(static_cast<int64_t>(gst_element_get_base_time(pipeline_.get())));
  key_wanted_ = (key_asked_ - base).count();
}

// In the stream, right before the picture: what is asked of the encoder against the stream is lost
// while that has no picture yet.
void mix_graph::force_asked_key_frames() {
  const media::pad_ptr pad(gst_element_get_static_pad(child(pipeline_.get(), "mixed"), "src"));
  media::add_probe(
      pad.get(), GST_PAD_PROBE_TYPE_BUFFER, [this, to = pad.get()](GstPadProbeInfo* info) {
        const GstClockTime at = media::times_of(GST_PAD_PROBE_INFO_BUFFER(info)).pts;
        int64_t wanted = key_wanted_;
        if (wanted < 0 || static_cast<int64_t>(at) < wanted ||
            !key_wanted_.compare_exchange_strong(wanted, -1)) {
          return GST_PAD_PROBE_OK;
        }
        gst_pad_push_event(to, gst_video_event_new_downstream_force_key_unit(at, at, at, TRUE, 0));
        return GST_PAD_PROBE_OK;
      });
}

void mix_graph::leave_out_halves() {
  const media::pad_ptr pad(gst_element_get_static_pad(child(pipeline_.get(), "mixed"), "sink"));
  media::add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
                   [this, odd = false](GstPadProbeInfo* /*info*/) mutable {
                     odd = !odd;
                     return odd && halved_ ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
                   });
}

void mix_graph::tick() {
  if (media::now() - shown_ > kStillInterval) show_canvas();
  for (const auto& user : users_) user->tick(settings_.latency);
}

}  // namespace zelta::core_service::mix
