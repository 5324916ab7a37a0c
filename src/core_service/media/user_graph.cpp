// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/user_graph.h"

#include <algorithm>
#include <utility>

#include <unistd.h>

#include "base/clocks.h"

namespace zelta::core_service::media {
namespace {

// Decouples the sender from encoders and disks; ten seconds outlast any hiccup of a disk.
constexpr const char* kQueue =
    "queue max-size-buffers=0 max-size-bytes=0 max-size-time=10000000000";
// A recorder that is killed loses one of these at most; on a clean end the file becomes a plain
// one.
constexpr const char* kMp4 =
    "mp4mux name=muxer fragment-duration=500 fragment-mode=first-moov-then-finalise";
constexpr const char* kWebm = "webmmux name=muxer";
constexpr const char* kFillGaps =
    "audioconvert ! audioresample ! audiorate ! audio/x-raw,rate=48000 ! audioconvert";
constexpr const char* kAac = "avenc_aac bitrate=64000 ! aacparse";
constexpr const char* kOpus = "opusenc bitrate=64000";

// Completing a file takes milliseconds unless the disk hangs; the engine waits 10 s.
constexpr int kFinishLimitMs = 5000;

void link_pads(GstPad* from, GstElement* to, const char* name) {
  const pad_ptr in(gst_element_get_static_pad(to, name));
  gst_pad_link(from, in.get());
}

// Holds a track up until its branch is ready, and is gone then.
GstPadProbeReturn hold(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer gate) {
  static_cast<track_gate*>(gate)->wait();
  return GST_PAD_PROBE_REMOVE;
}

GstPadProbeReturn drop(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*unused*/) {
  return GST_PAD_PROBE_DROP;
}

// A file announces where it ends. The recording may end earlier, and what fills gaps in sound would
// then fill up to the announced end.
GstPadProbeReturn forget_end(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*unused*/) {
  GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) != GST_EVENT_SEGMENT) return GST_PAD_PROBE_OK;
  GstSegment segment;
  gst_event_copy_segment(event, &segment);
  segment.stop = GST_CLOCK_TIME_NONE;
  GstEvent* const open_ended = gst_event_new_segment(&segment);
  gst_event_set_seqnum(open_ended, gst_event_get_seqnum(event));
  gst_event_unref(event);
  GST_PAD_PROBE_INFO_DATA(info) = open_ended;
  return GST_PAD_PROBE_OK;
}

// What the pad carries, or may carry while nothing has come yet.
caps_ptr caps_of(GstPad* pad) {
  caps_ptr caps(gst_pad_get_current_caps(pad));
  if (!caps) caps.reset(gst_pad_query_caps(pad, nullptr));
  return caps;
}

}  // namespace

user_graph::user_graph(uint32_t uid, user_media from, const media_plan& plan, surroundings around)
    : uid_(uid),
      plan_(plan),
      around_(std::move(around)),
      pipeline_(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)))),
      bus_(gst_pipeline_get_bus(GST_PIPELINE(pipeline_.get()))),
      source_(from.source.get()),
      complete_source_(from.complete) {
  // The system's clock for all users, so that their files can be laid on one timeline.
  const clock_ptr clock(gst_system_clock_obtain());
  gst_pipeline_use_clock(GST_PIPELINE(pipeline_.get()), clock.get());
  add(pipeline_.get(), std::move(from.source));
  watch_bus();
}

user_graph::~user_graph() {
  alive_.reset();
  if (give_up_timer_ != nullptr) around_.loop.remove_timer(give_up_timer_);
  around_.loop.remove_watcher(bus_fd_);
  gate_.open();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

bool user_graph::has(media_kind kind) const {
  return std::any_of(tracks_.begin(), tracks_.end(), [kind](const track& t) {
    return t.kind != nullptr && t.kind->kind == kind && t.meter && t.meter->read().buffers > 0;
  });
}

void user_graph::start() {
  if (complete_source_) {
    GstIterator* const pads = gst_element_iterate_src_pads(source_);
    gst_iterator_foreach(
        pads,
        [](const GValue* item, gpointer self) {
          static_cast<user_graph*>(self)->open(GST_PAD(g_value_get_object(item)), false);
        },
        this);
    gst_iterator_free(pads);
    wire();
  } else {
    g_signal_connect(source_, "pad-added", G_CALLBACK(on_pad_added), this);
    g_signal_connect(source_, "no-more-pads", G_CALLBACK(on_no_more_pads), this);
  }
  if (!finished_) gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

// ---- The source ----------------------------------------------------------------------------

// On the source's thread. Its media waits until all tracks are known, because a file must know them
// before its first byte.
void user_graph::on_pad_added(GstElement* /*source*/, GstPad* pad, gpointer self) {
  static_cast<user_graph*>(self)->open(pad, true);
}

void user_graph::on_no_more_pads(GstElement* /*source*/, gpointer self) {
  auto* const graph = static_cast<user_graph*>(self);
  graph->post([graph] { graph->wire(); });
}

void user_graph::open(GstPad* pad, bool held) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, forget_end, nullptr, nullptr);
  // Media alone is held up: a source may send events from the very thread that still has pads to
  // add.
  if (held) {
    gst_pad_add_probe(
        pad,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
        hold, &gate_, nullptr);
  }
  const std::lock_guard<std::mutex> guard(open_pads_lock_);
  open_pads_.emplace_back(GST_PAD(gst_object_ref(pad)));
}

void user_graph::post(std::function<void()> work) {
  around_.loop.post([alive = std::weak_ptr<int>(alive_), work = std::move(work)] {
    if (!alive.expired()) work();
  });
}

// ---- The wiring ----------------------------------------------------------------------------

void user_graph::wire() {
  if (wired_ || !finish_reason_.empty()) return;
  wired_ = true;
  std::vector<pad_ptr> pads;
  {
    const std::lock_guard<std::mutex> guard(open_pads_lock_);
    pads.swap(open_pads_);
  }
  bool records = false;
  bool records_video = false;
  for (const pad_ptr& from : pads) {
    const codec* const c = find_codec(caps_of(from.get()).get());
    if (c == nullptr || !recorded(*c)) continue;
    records = true;
    records_video = records_video || c->kind == media_kind::kVideo;
    webm_ = webm_ || std::string(c->name) == "vp8" || std::string(c->name) == "vp9";
  }
  if (records && !open_file(records_video)) return;
  for (pad_ptr& from : pads) {
    if (!wire_track(std::move(from))) return;
  }
  if (!complete_source_) start_branches();
  // Last of all: events that a source pushes into a branch which isn't running yet would make its
  // next buffer fail, before any probe could hold it.
  for (const track& t : tracks_) link_pads(t.source.get(), t.branch, "sink");
  gate_.open();
  if (pads.empty()) log(base::WARN_LOG, "sends nothing");
}

// The pipeline runs already, or is about to on a thread of its own; following its state of the
// moment would race with that. From the file upwards, so that nothing flows into what isn't ready.
void user_graph::start_branches() {
  if (muxer_ != nullptr) {
    const element_ptr file(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "file"));
    gst_element_set_state(file.get(), GST_STATE_PLAYING);
    gst_element_set_state(muxer_, GST_STATE_PLAYING);
  }
  for (const track& t : tracks_) gst_element_set_state(t.branch, GST_STATE_PLAYING);
}

bool user_graph::wire_track(pad_ptr from) {
  const caps_ptr caps = caps_of(from.get());
  const codec* const c = find_codec(caps.get());
  if (c == nullptr) {
    const std::unique_ptr<char, void (*)(void*)> text(gst_caps_to_string(caps.get()), g_free);
    log(base::WARN_LOG, std::string("sends what can't be recorded: ") + text.get());
  }
  if (c == nullptr || !wanted(*c)) {
    discard(std::move(from));
    return true;
  }
  track t{c, std::move(from), nullptr, nullptr, nullptr};
  if (!connect(t, branch_description(*c))) return false;
  tracks_.push_back(std::move(t));
  return true;
}

bool user_graph::connect(track& t, const std::string& description) {
  std::string error;
  element_ptr made = make_bin(description, error);
  if (!made) {
    log(base::ERROR_LOG, "can't be recorded: " + error);
    done("error: " + error);
    return false;
  }
  t.branch = add(pipeline_.get(), std::move(made));
  if (const auto kind = frames_of(*t.kind)) {
    const element_ptr sink(gst_bin_get_by_name(GST_BIN(t.branch), "frames"));
    t.frames = frame_sink::make(*kind, sink.get(), {uid_, plan_.avsync_type}, around_.link);
    const pad_ptr end(gst_element_get_static_pad(sink.get(), "sink"));
    meter(t, end.get());
    return true;
  }
  const pad_ptr end(gst_element_get_static_pad(t.branch, "src"));
  const pad_ptr in(gst_element_request_pad_simple(
      muxer_, t.kind->kind == media_kind::kVideo ? "video_%u" : "audio_%u"));
  gst_pad_link(end.get(), in.get());
  meter(t, end.get());
  return true;
}

void user_graph::discard(pad_ptr source) {
  GstElement* const sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  gst_bin_add(GST_BIN(pipeline_.get()), sink);
  tracks_.push_back({nullptr, std::move(source), sink, nullptr, nullptr});
}

bool user_graph::wanted(const codec& c) const {
  return c.kind == media_kind::kAudio ? plan_.take_audio : plan_.take_video;
}

std::optional<frame_kind> user_graph::frames_of(const codec& c) const {
  return c.kind == media_kind::kAudio ? plan_.audio_frames : plan_.video_frames;
}

std::string user_graph::branch_description(const codec& c) const {
  const std::string parsed = std::string(kQueue) + " ! " + c.parse;
  const auto frames = frames_of(c);
  if (!frames) return recorded_branch(c);
  if (*frames == frame_kind::kH264 && std::string(c.name) != "h264") {
    log(base::WARN_LOG, std::string("sends ") + c.name + ", so there are no H.264 frames of it");
    return parsed + " ! fakesink name=frames sync=false async=false";
  }
  // An H.264 parser stands in the branch already, and frames of H.264 need no decoder.
  if (*frames == frame_kind::kH264) return std::string(kQueue) + " ! " + frame_branch(*frames);
  return parsed + " ! " + c.decode + " ! " + frame_branch(*frames);
}

std::string user_graph::recorded_branch(const codec& c) const {
  std::string parsed = std::string(kQueue) + " ! " + c.parse;
  if (c.kind == media_kind::kVideo) {
    return webm_ ? parsed
                 : parsed + " ! capsfilter caps=video/x-h264,stream-format=avc,alignment=au";
  }
  if (webm_ && std::string(c.name) == "opus") return parsed;
  return parsed + " ! " + c.decode + " ! " + kFillGaps + " ! " + (webm_ ? kOpus : kAac);
}

// ---- The file ------------------------------------------------------------------------------

bool user_graph::open_file(bool with_video) {
  std::string error;
  element_ptr muxer(gst_parse_launch(webm_ ? kWebm : kMp4, nullptr));
  if (!muxer) {
    log(base::ERROR_LOG,
        "can't be recorded: mp4mux and webmmux are in the package gstreamer1.0-plugins-good");
    done("error: no muxer");
    return false;
  }
  gst_object_ref_sink(muxer.get());
  GstElement* const sink = gst_element_factory_make("filesink", "file");
  manifest_file entry;
  entry.name = std::to_string(uid_) + "_" + base::utc_compact_text(base::utc_ms()) +
               (webm_        ? ".webm"
                : with_video ? ".mp4"
                             : ".m4a");
  entry.uid = uid_;
  path_ = around_.folder + entry.name;
  g_object_set(sink, "location", path_.c_str(), "async", FALSE, "sync", FALSE,
               // Unbuffered: what a fragment has closed must outlive this process.
               "buffer-mode", 2, nullptr);
  muxer_ = add(pipeline_.get(), std::move(muxer));
  gst_bin_add(GST_BIN(pipeline_.get()), sink);
  gst_element_link(muxer_, sink);
  file_ = around_.files.add(entry);
  return true;
}

void user_graph::meter(track& t, GstPad* end) {
  const media_kind kind = t.kind->kind;
  t.meter = std::make_unique<track_meter>(end, [this, kind](const track_meter::reading& first) {
    post([this, kind, width = first.width, height = first.height] {
      if (kind == media_kind::kVideo) {
        around_.listener.on_first_video(uid_, width, height);
      } else {
        around_.listener.on_first_audio(uid_);
      }
      update_manifest();
      around_.files.save();
    });
  });
}

int64_t user_graph::utc_ms_at(GstClockTime running_time) const {
  const clock_ptr clock(gst_pipeline_get_clock(GST_PIPELINE(pipeline_.get())));
  const auto now = static_cast<int64_t>(gst_clock_get_time(clock.get()) -
                                        gst_element_get_base_time(pipeline_.get()));
  return base::utc_ms() - (now - static_cast<int64_t>(running_time)) / 1'000'000;
}

void user_graph::update_manifest() {
  if (!file_ || finished_) return;
  manifest_file& entry = around_.files.at(*file_);
  for (const track& t : tracks_) {
    if (t.kind == nullptr || t.frames || !t.meter) continue;
    const track_meter::reading now = t.meter->read();
    if (now.buffers == 0) continue;
    const int64_t first = utc_ms_at(now.first);
    entry.first_utc_ms = entry.first_utc_ms == 0 ? first : std::min(entry.first_utc_ms, first);
    entry.last_utc_ms = std::max(entry.last_utc_ms, utc_ms_at(now.end));
    if (t.kind->kind == media_kind::kVideo) {
      entry.video_codec = t.kind->name;
      entry.width = now.width;
      entry.height = now.height;
    } else {
      entry.audio_codec = webm_ ? "opus" : "aac";
    }
  }
  entry.kind = entry.video_codec.empty()   ? "audio"
               : entry.audio_codec.empty() ? "video"
                                           : "audio_video";
}

// ---- The end -------------------------------------------------------------------------------

void user_graph::finish(const std::string& why) {
  if (finished_ || !finish_reason_.empty()) return;
  finish_reason_ = why;
  if (tracks_.empty()) {
    post([this, why] { done(why); });
    return;
  }
  give_up_timer_ = around_.loop.add_timer(
      kFinishLimitMs,
      [](int, void* self) {
        auto* const graph = static_cast<user_graph*>(self);
        graph->log(base::ERROR_LOG, "file could not be completed in time; it stays fragmented");
        graph->done(graph->finish_reason_ + ", not completed");
      },
      this);
  // Nothing more from the source, and the end of the stream behind what has come: the source itself
  // may hold seconds of media that must not be recorded any more.
  for (const track& t : tracks_) {
    gst_pad_add_probe(
        t.source.get(),
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                     GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
        drop, nullptr, nullptr);
    const pad_ptr in(gst_element_get_static_pad(t.branch, "sink"));
    gst_pad_send_event(in.get(), gst_event_new_eos());
  }
}

void user_graph::done(const std::string& why) {
  if (finished_) return;
  update_manifest();
  finished_ = true;
  if (give_up_timer_ != nullptr) around_.loop.remove_timer(std::exchange(give_up_timer_, nullptr));
  gate_.open();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  const bool empty = std::all_of(tracks_.begin(), tracks_.end(), [](const track& t) {
    return t.kind == nullptr || t.frames || !t.meter || t.meter->read().buffers == 0;
  });
  if (file_ && empty) {
    // A file without media only puzzles whoever finds it.
    unlink(path_.c_str());
    around_.files.remove(*file_);
  } else if (file_) {
    around_.files.at(*file_).closed = why;
  }
  around_.files.save();
  post([this, why] { around_.listener.on_graph_finished(*this, why, disk_failed_); });
}

// ---- Messages ------------------------------------------------------------------------------

void user_graph::watch_bus() {
  GPollFD polled{};
  gst_bus_get_pollfd(bus_.get(), &polled);
  bus_fd_ = polled.fd;
  around_.loop.add_watcher(
      bus_fd_, this, [](int, void* self) { static_cast<user_graph*>(self)->on_bus(); }, nullptr,
      nullptr);
}

void user_graph::on_bus() {
  while (!finished_) {
    const message_ptr message(gst_bus_pop(bus_.get()));
    if (!message) return;
    on_message(message.get());
  }
  around_.loop.remove_watcher(bus_fd_);
}

void user_graph::on_message(GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
    return done(finish_reason_.empty() ? "end of media" : finish_reason_);
  }
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return;
  GError* error = nullptr;
  char* details = nullptr;
  gst_message_parse_error(message, &error, &details);
  const std::string why = error->message;
  log(base::ERROR_LOG, why + " (" + (details != nullptr ? details : "") + ")");
  g_clear_error(&error);
  g_free(details);
  const std::string from = GST_OBJECT_NAME(GST_MESSAGE_SRC(message));
  if (from == "file") {
    disk_failed_ = true;
    return done("error: " + why);
  }
  // The other tracks are fine, so the file is completed as far as it goes.
  if (wired_) return finish("error: " + why);
  done("error: " + why);
}

void user_graph::log(base::log_levels level, const std::string& text) const {
  base::log_dir(around_.folder.c_str(), level, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                "user %u: %s", uid_, text.c_str());
}

}  // namespace zelta::core_service::media
