// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/decode_graph.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include "core_service/media/decoder_guard.h"
#include "core_service/media/picture_memory.h"
#include "core_service/media/plain_pictures.h"
#include "core_service/media/thread_marks.h"

namespace zelta::core_service::media {
namespace {

using namespace std::chrono_literals;

constexpr int kFinishLimitMs = 3000;
// So long a decoder may take for what it has.
constexpr media_time kLastUnits = 3s;
// Whoever leaves sooner may not have sent what can be decoded.
constexpr media_time kFirstOutputPatience = 5s;

constexpr const char* kSource = "appsrc name=units format=time is-live=true max-bytes=0 ! ";
// Decouples decoding from recording: a machine that can't decode in time drops pictures here, and
// the recording goes on.
constexpr const char* kDecodeQueue =
    "queue max-size-buffers=0 max-size-bytes=0 max-size-time=3000000000 leaky=upstream";
// Raw pictures are big; the oldest of a few that wait is dropped.
constexpr const char* kPictureQueue =
    "queue max-size-buffers=4 max-size-bytes=0 max-size-time=0 leaky=downstream";
constexpr const char* kSink = "appsink sync=false async=false name=";

// The threads of a track's source go through its parser, and through the sound's decoder; all
// others are behind the queue of a decoder.
crash_stage stage_of(GstElement* owner) {
  return GST_IS_APP_SRC(owner) != FALSE ? crash_stage::kReceiving : crash_stage::kDecoding;
}

}  // namespace

decode_graph::decode_graph(uint32_t uid, consumers to, int channels, media_time zero,
                           base::event_loop& loop, events told)
    : uid_(uid),
      to_(std::move(to)),
      channels_(channels),
      zero_(zero),
      events_(std::move(told)),
      poster_(loop),
      pipeline_(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)))) {
  use_system_clock(pipeline_.get());
  mark_threads(pipeline_.get(), uid_, stage_of);
  watch_.emplace(pipeline_.get(), loop,
                 bus_watch::events{[this] { done(); },
                                   [this](const std::string& why, const std::string& /*from*/,
                                          bool /*disk*/) { fail(why); }});
  gst_element_set_start_time(pipeline_.get(), GST_CLOCK_TIME_NONE);
  gst_element_set_base_time(pipeline_.get(), static_cast<GstClockTime>(zero_.count()));
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

decode_graph::~decode_graph() {
  watch_.reset();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

// ---- Tracks --------------------------------------------------------------------------------

void decode_graph::push(int number, const encoded_unit& unit) {
  if (finishing_ || finished_) return;
  remove_ended();
  const auto [at, is_new] = tracks_.try_emplace(number);
  if (is_new) at->second = add_track(number, unit);
  if (!at->second) return;
  track& to = *at->second;
  if (!(unit.turn == to.turn.load())) turn(to, unit.turn);
  const media_sample made = to.samples.of(unit);
  const auto since_zero = [this](media_time time) {
    return static_cast<GstClockTime>(std::max(time - zero_, media_time::zero()).count());
  };
  set_times(made.buffer.get(),
            {since_zero(unit.time), since_zero(unit.decode_time),
             unit.duration > media_time::zero() ? static_cast<GstClockTime>(unit.duration.count())
                                                : GST_CLOCK_TIME_NONE});
  const sample_ptr sample(gst_sample_new(made.buffer.get(), made.caps.get(), nullptr, nullptr));
  say_pushed();
  gst_app_src_push_sample(GST_APP_SRC(to.source), sample.get());
}

std::shared_ptr<decode_graph::track> decode_graph::add_track(int number,
                                                             const encoded_unit& first) {
  const codec& kind = *first.format->kind;
  const bool video = kind.kind == media_kind::kVideo;
  std::string error;
  element_ptr made = make_bin(kSource + (video ? video_branch(kind) : sound_branch(kind)), error);
  if (!made) {
    events_.missing({name_of(kind.kind), kind.name, error});
    return nullptr;
  }
  auto t = std::make_shared<track>();
  t->kind = &kind;
  t->number = number;
  t->since = first.time;
  t->branch = add(pipeline_.get(), std::move(made));
  t->source = child(t->branch, "units");
  // It says what it sends before it sends where.
  const caps_ptr caps = caps_of(*first.format);
  gst_app_src_set_caps(GST_APP_SRC(t->source), caps.get());
  const pad_ptr out(gst_element_get_static_pad(t->source, "src"));
  add_probe(out.get(), GST_PAD_PROBE_TYPE_EVENT_UPSTREAM,
            [ask = events_.need_key_frame](GstPadProbeInfo* info) {
              if (gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) == FALSE) {
                return GST_PAD_PROBE_OK;
              }
              ask();
              return GST_PAD_PROBE_DROP;
            });
  if (video) {
    guard_decoders(t->branch, kind, [this, t] {
      leave_out(*t, {"decoded video", t->kind->name, "its pictures are too large to decode"});
    });
    connect_video(t);
  } else {
    connect_sound(t);
  }
  gst_element_sync_state_with_parent(t->branch);
  return t;
}

void decode_graph::end_track(int number) {
  const auto at = tracks_.find(number);
  if (at == tracks_.end()) return;
  if (at->second) {
    gst_app_src_end_of_stream(GST_APP_SRC(at->second->source));
    ended_.push_back({now(), std::move(at->second)});
  }
  tracks_.erase(at);
}

// Of which everything has come out.
void decode_graph::remove_ended() {
  for (; !ended_.empty() && now() - ended_.front().since > kLastUnits; ended_.pop_front()) {
    const track& gone = *ended_.front().was;
    tell_if_silent(gone, ended_.front().since - kFirstOutputPatience);
    gst_element_set_state(gone.branch, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(pipeline_.get()), gone.branch);
    const std::lock_guard<std::mutex> guard(choice_lock_);
    current_video_.ended(gone.number);
    current_sound_.ended(gone.number);
  }
}

// Those who turn pictures themselves are told in the stream.
void decode_graph::turn(track& t, picture_turn by) {
  t.turn = by;
  const std::string told =
      std::string(by.flipped ? "flip-" : "") + "rotate-" + std::to_string(by.degrees);
  GstTagList* const tags = gst_tag_list_new(GST_TAG_IMAGE_ORIENTATION, told.c_str(), nullptr);
  gst_element_send_event(t.source, gst_event_new_tag(tags));
}

// ---- The branches --------------------------------------------------------------------------

// The thread behind it has its name, so that a debugger tells whose it is.
std::string decode_graph::decode_queue() const {
  return "d" + std::to_string(uid_);
}

std::string decode_graph::sound_branch(const codec& c) const {
  return std::string(c.decode) +
         " ! audioconvert ! audioresample ! audio/x-raw,format=S16LE,layout=interleaved,"
         "rate=48000,channels=" +
         std::to_string(channels_) + " ! " + kSink + "sound";
}

std::string decode_graph::video_branch(const codec& c) const {
  const std::string sink = kSink;
  std::string text = std::string(c.parse) + " ! tee name=coded";
  if (to_.takes(form::kAccessUnits) && std::strcmp(c.name, "h264") == 0) {
    text +=
        " coded. ! h264parse config-interval=-1 ! "
        "video/x-h264,stream-format=byte-stream,alignment=au ! " +
        sink + "h264";
  }
  if (!to_.take_decoded_pictures()) return text;
  text += std::string(" coded. ! ") + kDecodeQueue + " name=" + decode_queue() + " ! " + c.decode +
          " ! " + plain_pictures() + " ! tee name=raw";
  const std::string raw = std::string(" raw. ! ") + kPictureQueue + " ! ";
  if (to_.takes(form::kPictures)) text += raw + sink + "pictures";
  // The mix has a queue of its own.
  if (to_.takes(form::kUprightPictures)) {
    text += " raw. ! videoflip video-direction=auto ! " + sink + "upright";
  }
  if (to_.takes(form::kStills)) {
    text += raw + "videoconvert name=still_in ! jpegenc ! " + sink + "stills";
  }
  return text;
}

// `take` gets what the sink called `name` of the track's branch receives and counts, placed in
// time.
void decode_graph::receive(const std::shared_ptr<track>& t, const char* name,
                           std::function<void(GstSample*, const media_sample&)> take) {
  ++t->open_sinks;
  on_samples(
      child(t->branch, name),
      [this, t, take = std::move(take)](GstSample* from) {
        media_sample sample;
        if (!take_sample(from, pipeline_.get(), sample)) return;
        t->seen = true;
        if (!works_.exchange(true)) poster_.post([this] { events_.works(); });
        if (is_current(*t, sample.time)) take(from, sample);
      },
      [this, t] { on_end(*t); });
}

// On the sink's thread.
void decode_graph::on_end(track& t) {
  if (--t.open_sinks > 0) return;
  poster_.post([this] {
    if (!has_open_sinks()) done();
  });
}

bool decode_graph::has_open_sinks() const {
  const bool of_ended = std::any_of(ended_.begin(), ended_.end(),
                                    [](const ended_track& one) { return one.was->open_sinks > 0; });
  return of_ended || std::any_of(tracks_.begin(), tracks_.end(), [](const auto& one) {
           return one.second && one.second->open_sinks > 0;
         });
}

void decode_graph::connect_sound(const std::shared_ptr<track>& t) {
  receive(t, "sound", [this](GstSample* /*from*/, const media_sample& sample) {
    GstMapInfo map{};
    if (gst_buffer_map(sample.buffer.get(), &map, GST_MAP_READ) == FALSE) return;
    const size_t frame_bytes = sizeof(int16_t) * static_cast<size_t>(channels_);
    const auto* const samples = reinterpret_cast<const int16_t*>(map.data);
    to_.each(form::kSound,
             [&](consumer& one) { one.on_sound(sample.time, samples, map.size / frame_bytes); });
    gst_buffer_unmap(sample.buffer.get(), &map);
  });
}

void decode_graph::connect_video(const std::shared_ptr<track>& t) {
  if (child(t->branch, "h264") != nullptr) {
    receive(t, "h264", [this, t](GstSample* /*from*/, const media_sample& sample) {
      to_.each(form::kAccessUnits,
               [&](consumer& one) { one.on_access_unit(sample, t->rotation()); });
    });
  }
  if (to_.takes(form::kUprightPictures)) {
    receive(t, "upright", [this](GstSample* from, const media_sample& sample) {
      to_.each(form::kUprightPictures,
               [&](consumer& one) { one.on_upright_picture(from, sample.time); });
    });
  }
  if (to_.takes(form::kPictures)) {
    // Of the decoder, and of those who make its pictures plain where they have something to do.
    offer_picture_memory_along(t->branch);
    const pad_ptr in(gst_element_get_static_pad(child(t->branch, "raw"), "sink"));
    offer_picture_memory(in.get());
    receive(t, "pictures", [this, t](GstSample* from, const media_sample& sample) {
      to_.each(form::kPictures,
               [&](consumer& one) { one.on_picture(from, sample.time, t->rotation()); });
    });
  }
  if (!to_.takes(form::kStills)) return;
  pick_stills(t);
  receive(t, "stills", [this, t](GstSample* /*from*/, const media_sample& sample) {
    to_.each(form::kStills, [&](consumer& one) { one.on_still(sample, t->rotation()); });
  });
}

// Of all pictures one an interval goes on to the encoder.
void decode_graph::pick_stills(const std::shared_ptr<track>& t) {
  const pad_ptr in(gst_element_get_static_pad(child(t->branch, "still_in"), "sink"));
  add_probe(in.get(), GST_PAD_PROBE_TYPE_BUFFER, [this, t](GstPadProbeInfo* info) {
    t->seen = true;
    const auto at = static_cast<int64_t>(times_of(GST_PAD_PROBE_INFO_BUFFER(info)).pts);
    if (!to_.wants(form::kStills) || at < t->next_still) return GST_PAD_PROBE_DROP;
    // On a grid, so that the pictures don't drift, unless the user was away.
    const int64_t interval = still_interval_;
    t->next_still = at - t->next_still < interval && t->next_still > 0 ? t->next_still + interval
                                                                       : at + interval;
    return GST_PAD_PROBE_OK;
  });
}

bool decode_graph::is_current(const track& t, media_time time) {
  const std::lock_guard<std::mutex> guard(choice_lock_);
  track_choice& choice = t.kind->kind == media_kind::kVideo ? current_video_ : current_sound_;
  return choice.counts(t.number, time);
}

// Any thread.
void decode_graph::leave_out(track& t, missing_medium what) {
  t.refused = true;
  poster_.post([this, what = std::move(what)] { events_.missing(what); });
}

// ---- The end -------------------------------------------------------------------------------

void decode_graph::finish(media_time patience) {
  if (std::exchange(finishing_, true) || finished_) return;
  for (const auto& [number, one] : tracks_) {
    if (one) gst_app_src_end_of_stream(GST_APP_SRC(one->source));
  }
  silent_since_ = now() - patience;
  // Nothing was to be decoded, or all tracks have ended before.
  if (!has_open_sinks()) return poster_.post([this] { done(); });
  give_up_timer_ = {poster_.loop(), kFinishLimitMs, [this] { done(); }};
}

void decode_graph::tell_if_silent(const track& t, media_time since) const {
  if (t.seen || t.refused || t.since > since) return;
  const bool video = t.kind->kind == media_kind::kVideo;
  events_.missing({video ? "decoded video" : "audio", t.kind->name,
                   "nothing of it could be parsed or decoded"});
}

void decode_graph::done() {
  if (!finishing_ || std::exchange(finished_, true)) return;
  for (const auto& [number, one] : tracks_) {
    if (one) tell_if_silent(*one, silent_since_);
  }
  for (const ended_track& one : ended_) tell_if_silent(*one.was, silent_since_);
  give_up_timer_.stop();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  // Behind the samples that are still on their way through the loop.
  poster_.post([finished = events_.finished] { finished(); });
}

// One that has nothing left to do is judged by what came out.
void decode_graph::fail(const std::string& why) {
  if (finishing_ || std::exchange(finished_, true)) return;
  give_up_timer_.stop();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  poster_.post([failed = events_.failed, why] { failed(why); });
}

}  // namespace zelta::core_service::media
