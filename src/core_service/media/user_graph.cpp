// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/user_graph.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <gst/video/video.h>

#include "core_service/folder/crash_note.h"
#include "core_service/media/picture_memory.h"
#include "core_service/media/plain_pictures.h"

namespace zelta::core_service::media {
namespace {

using namespace std::chrono_literals;

constexpr int kFinishLimitMs = 3000;
constexpr media_time kKeyFrameInterval = 1s;
// Whoever leaves sooner may not have sent one yet.
constexpr media_time kFirstKeyFramePatience = 5s;

// Decouples decoding from recording: a machine that can't decode in time drops pictures here, and
// the recording goes on.
constexpr const char* kDecodeQueue =
    "queue max-size-buffers=0 max-size-bytes=0 max-size-time=3000000000 leaky=upstream";
// Raw pictures are big; the oldest of a few that wait is dropped.
constexpr const char* kPictureQueue =
    "queue max-size-buffers=4 max-size-bytes=0 max-size-time=0 leaky=downstream";
constexpr const char* kSink = "appsink sync=false async=false name=";

GstPadProbeReturn drop(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*unused*/) {
  return GST_PAD_PROBE_DROP;
}

// What the pad carries, or may carry while nothing has come yet.
caps_ptr caps_of(GstPad* pad) {
  caps_ptr caps(gst_pad_get_current_caps(pad));
  if (!caps) caps.reset(gst_pad_query_caps(pad, nullptr));
  if (gst_caps_is_any(caps.get()) != FALSE) caps.reset(gst_pad_get_pad_template_caps(pad));
  return caps;
}

// The sender's word for how to turn its pictures, in degrees clockwise.
int rotation_of(const GstTagList* tags, int present) {
  char* text = nullptr;
  if (gst_tag_list_get_string(tags, GST_TAG_IMAGE_ORIENTATION, &text) == FALSE) return present;
  const std::unique_ptr<char, void (*)(void*)> owner(text, g_free);
  return std::strncmp(text, "rotate-", 7) == 0 ? std::atoi(text + 7) : 0;
}

}  // namespace

user_graph::user_graph(uint32_t uid, user_media from, consumers to, int channels,
                       base::event_loop& loop, events told, base::logger log)
    : uid_(uid),
      to_(std::move(to)),
      channels_(channels),
      events_(std::move(told)),
      log_(std::move(log)),
      poster_(loop),
      pipeline_(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)))),
      source_(from.source.get()),
      complete_source_(from.complete) {
  // The system's clock for all users, so that their media stands on one timeline.
  const clock_ptr clock(gst_system_clock_obtain());
  gst_pipeline_use_clock(GST_PIPELINE(pipeline_.get()), clock.get());
  add(pipeline_.get(), std::move(from.source));
  mark_threads();
  watch_.emplace(
      pipeline_.get(), loop,
      bus_watch::events{[this] {
                          if (!finish_reason_.empty()) return done(finish_reason_);
                          if (!ends_by_itself_) return;
                          tell_what_never_came(0s);
                          done("end of media");
                        },
                        [this](const std::string& why, const std::string& /*from*/, bool /*disk*/) {
                          events_.missing({"all", "", why});
                          done("error: " + why);
                        },
                        [this](const GstCaps* caps) { leave_out_unknown(caps); }});
}

user_graph::~user_graph() {
  watch_.reset();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  // The source may outlive its pipeline.
  g_signal_handlers_disconnect_by_data(source_, this);
}

void user_graph::start(std::optional<media_time> zero) {
  ends_by_itself_ = !zero;
  if (complete_source_) {
    GstIterator* const pads = gst_element_iterate_src_pads(source_);
    gst_iterator_foreach(
        pads,
        [](const GValue* item, gpointer self) {
          static_cast<user_graph*>(self)->attach(GST_PAD(g_value_get_object(item)));
        },
        this);
    gst_iterator_free(pads);
    note_tracks();
  } else {
    g_signal_connect(source_, "pad-added", G_CALLBACK(on_pad_added), this);
    g_signal_connect(source_, "pad-removed", G_CALLBACK(on_pad_removed), this);
    g_signal_connect(source_, "no-more-pads", G_CALLBACK(on_no_more_pads), this);
  }
  // Known before anything plays: a track that a source finds while its pipeline is still on the way
  // plays at once, and what it sends would stand at a time that has no zero yet.
  const auto base = static_cast<GstClockTime>(zero.value_or(now()).count());
  gst_element_set_start_time(pipeline_.get(), GST_CLOCK_TIME_NONE);
  gst_element_set_base_time(pipeline_.get(), base);
  gst_element_set_base_time(source_, base);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

// ---- The source's tracks -------------------------------------------------------------------

void user_graph::on_pad_added(GstElement* /*source*/, GstPad* pad, gpointer self) {
  static_cast<user_graph*>(self)->attach(pad);
}

// On a thread of the source, which may be the one that feeds the branch.
void user_graph::on_pad_removed(GstElement* /*source*/, GstPad* pad, gpointer self) {
  auto* const graph = static_cast<user_graph*>(self);
  const std::shared_ptr<GstPad> kept(GST_PAD(gst_object_ref(pad)), gst_object_unref);
  graph->poster_.post([graph, kept] { graph->detach(kept.get()); });
}

void user_graph::detach(GstPad* pad) {
  if (finished_ || !finish_reason_.empty()) return;
  pad_ptr in;
  std::shared_ptr<track> gone;
  {
    const std::lock_guard<std::mutex> guard(tracks_lock_);
    const auto end_at = std::find_if(ends_.begin(), ends_.end(),
                                     [pad](const end& e) { return e.source.get() == pad; });
    if (end_at == ends_.end()) return;
    in = std::move(end_at->in);
    ends_.erase(end_at);
    const auto track_at = std::find_if(tracks_.begin(), tracks_.end(),
                                       [pad](const auto& t) { return t->source.get() == pad; });
    if (track_at != tracks_.end()) {
      gone = *track_at;
      tracks_.erase(track_at);
      current_video_.ended(gone->number);
      current_sound_.ended(gone->number);
    }
  }
  const element_ptr branch(gst_pad_get_parent_element(in.get()));
  // Ends it, so that its sinks are not waited for later.
  gst_pad_send_event(in.get(), gst_event_new_eos());
  gst_element_set_state(branch.get(), GST_STATE_NULL);
  gst_bin_remove(GST_BIN(pipeline_.get()), branch.get());
}

void user_graph::on_no_more_pads(GstElement* /*source*/, gpointer self) {
  auto* const graph = static_cast<user_graph*>(self);
  graph->poster_.post([graph] { graph->note_tracks(); });
}

void user_graph::note_tracks() {
  bool sound = false;
  bool video = false;
  bool any = false;
  {
    const std::lock_guard<std::mutex> guard(tracks_lock_);
    for (const auto& t : tracks_) {
      any = true;
      sound = sound || t->kind->kind == media_kind::kAudio;
      video = video || t->kind->kind == media_kind::kVideo;
    }
  }
  if (!any) log_.warn("sends nothing that is to be recorded");
  events_.tracks_known(sound, video);
}

bool user_graph::wanted(media_kind kind) const {
  if (kind == media_kind::kAudio) return to_.takes(form::kSound);
  return to_.takes(form::kCodedPictures) || to_.takes(form::kAccessUnits) ||
         to_.take_decoded_pictures();
}

void user_graph::attach(GstPad* pad) {
  const caps_ptr caps = caps_of(pad);
  const codec* const c = find_codec(caps.get());
  if (c == nullptr) leave_out_unknown(caps.get());
  if (c != nullptr) offered_ = true;
  if (c == nullptr || !wanted(c->kind)) return discard(pad);
  auto t = std::make_shared<track>();
  const bool anew = c->kept == storage::kAsH264;
  t->kind = anew ? find_codec("h264") : c;
  t->since = now();
  t->source.reset(GST_PAD(gst_object_ref(pad)));
  std::string error;
  std::string branch = c->kind == media_kind::kVideo ? video_branch(*t->kind) : sound_branch(*c);
  if (anew) {
    const std::string again = as_h264(*c, caps.get());
    if (again.empty()) {
      leave_out({name_of(c->kind), c->name, "no file takes it, and there is no H.264 encoder"});
      return discard(pad);
    }
    branch = again + " ! " + branch;
  }
  element_ptr made = make_bin(branch, error);
  if (!made) {
    leave_out({name_of(c->kind), c->name, error});
    return discard(pad);
  }
  if (anew) {
    log_.warn(std::string("its video (") + c->name +
              ") is decoded and encoded as H.264, because no file takes it");
  }
  t->branch = add(pipeline_.get(), std::move(made));
  if (c->kind == media_kind::kVideo) prepare_decoders(t, *c);
  connect(t);
  {
    const std::lock_guard<std::mutex> guard(tracks_lock_);
    t->number = ++last_track_;
    tracks_.push_back(t);
  }
  lead(pad, t->branch);
}

// The branch runs before it is linked: an event that a source pushes into one that doesn't run yet
// would make its next buffer fail.
void user_graph::lead(GstPad* pad, GstElement* branch) {
  if (!complete_source_) gst_element_set_state(branch, GST_STATE_PLAYING);
  pad_ptr in(gst_element_get_static_pad(branch, "sink"));
  gst_pad_link(pad, in.get());
  const std::lock_guard<std::mutex> guard(tracks_lock_);
  ends_.push_back({pad_ptr(GST_PAD(gst_object_ref(pad))), std::move(in)});
}

void user_graph::discard(GstPad* pad) {
  GstElement* const sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  gst_bin_add(GST_BIN(pipeline_.get()), sink);
  lead(pad, sink);
}

// Any thread.
void user_graph::leave_out(missing_medium what) {
  offered_ = true;
  poster_.post([this, what = std::move(what)] { events_.missing(what); });
}

// Texts and data beside the media are no loss of media.
void user_graph::leave_out_unknown(const GstCaps* caps) {
  const GstStructure* const fields = gst_caps_get_structure(caps, 0);
  const char* const hidden = gst_structure_get_string(fields, "original-media-type");
  const std::string name = hidden != nullptr ? hidden : gst_structure_get_name(fields);
  const auto kind = kind_of(name);
  if (!kind) return log_.notice("leaves out what is no sound or picture: " + name);
  if (!wanted(*kind)) return;
  leave_out({name_of(*kind), name,
             hidden != nullptr ? "it is encrypted, and no key to it is known"
                               : "it is none of the codecs that are recorded"});
}

// ---- Who would be to blame ------------------------------------------------------------------

// GStreamer says on each of its threads for whom it begins to work. Those that a branch starts are
// behind its decoder's queue; the source's go through parsers, and through the sound's decoder.
void user_graph::mark_threads() {
  struct whose {
    uint32_t uid;
    GstElement* source;
    GstElement* pipeline;
  };
  using context = handed_over<whose>;
  const bus_ptr bus(gst_pipeline_get_bus(GST_PIPELINE(pipeline_.get())));
  gst_bus_set_sync_handler(
      bus.get(),
      [](GstBus*, GstMessage* message, gpointer given) {
        if (type_of(message) != GST_MESSAGE_STREAM_STATUS) return GST_BUS_PASS;
        const whose& user = static_cast<context*>(given)->get();
        GstStreamStatusType type{};
        GstElement* owner = nullptr;
        gst_message_parse_stream_status(message, &type, &owner);
        if (type == GST_STREAM_STATUS_TYPE_LEAVE) unmark_thread();
        if (type != GST_STREAM_STATUS_TYPE_ENTER) return GST_BUS_PASS;
        const element_ptr bin(GST_ELEMENT(gst_object_get_parent(GST_OBJECT(owner))));
        const bool of_branch =
            bin && bin.get() != user.source &&
            gst_object_has_as_parent(GST_OBJECT(bin.get()), GST_OBJECT(user.pipeline)) != FALSE;
        mark_thread(user.uid, of_branch ? crash_stage::kDecoding : crash_stage::kReceiving);
        return GST_BUS_PASS;
      },
      std::make_unique<context>(whose{uid_, source_, pipeline_.get()}).release(),
      [](gpointer given) { const std::unique_ptr<context> owner(static_cast<context*>(given)); });
}

// A decoder's own threads would serve a user without a mark.
void user_graph::prepare_decoders(const std::shared_ptr<track>& t, const codec& from) {
  std::vector<GstElement*> decoders;
  GstIterator* const elements = gst_bin_iterate_recurse(GST_BIN(t->branch));
  gst_iterator_foreach(
      elements,
      [](const GValue* item, gpointer found) {
        auto* const element = GST_ELEMENT(g_value_get_object(item));
        const char* const what = gst_element_get_metadata(element, "klass");
        if (what != nullptr && std::strstr(what, "Decoder") != nullptr) {
          static_cast<std::vector<GstElement*>*>(found)->push_back(element);
        }
      },
      &decoders);
  gst_iterator_free(elements);
  for (GstElement* const decoder : decoders) {
    for (const char* const name : {"max-threads", "threads"}) {
      if (g_object_class_find_property(G_OBJECT_GET_CLASS(decoder), name) == nullptr) continue;
      g_object_set(decoder, name, 1, nullptr);
    }
    guard_decoder(t, from, decoder);
  }
}

// What can be recorded as it came is, but a decoder sees nothing while it is of such a size: it
// sets itself up by the caps already, where a parser has made them.
void user_graph::guard_decoder(const std::shared_ptr<track>& t, const codec& from,
                               GstElement* decoder) {
  const bool vp8 = std::strcmp(from.name, "vp8") == 0;
  const bool says_itself = vp8 || std::strcmp(from.name, "theora") == 0;
  const pad_ptr in(gst_element_get_static_pad(decoder, "sink"));
  add_probe(
      in.get(),
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
      [this, t, &from, vp8, says_itself, huge = false](GstPadProbeInfo* info) mutable {
        std::optional<bool> decodable;
        if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
          GstBuffer* const coded = GST_PAD_PROBE_INFO_BUFFER(info);
          GstMapInfo map{};
          if (says_itself && gst_buffer_map(coded, &map, GST_MAP_READ) != FALSE) {
            decodable = is_decodable(map.data, map.size, vp8);
            gst_buffer_unmap(coded, &map);
          }
        } else {
          GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
          if (type_of(event) != GST_EVENT_CAPS || says_itself) return GST_PAD_PROBE_OK;
          GstCaps* caps = nullptr;
          gst_event_parse_caps(event, &caps);
          decodable = is_decodable(caps);
        }
        const bool was_huge = std::exchange(huge, !decodable.value_or(!huge));
        if (huge && !was_huge) refuse_size(*t, from);
        return huge ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
      });
}

void user_graph::refuse_size(track& t, const codec& from) {
  const bool anew = from.kept == storage::kAsH264;
  if (anew) t.refused = true;
  leave_out({anew ? "video" : "decoded video", from.name, "its pictures are too large to decode"});
}

// The thread behind it has its name, so that a debugger tells whose it is.
std::string user_graph::decode_queue() const {
  return "d" + std::to_string(uid_);
}

// ---- The branches --------------------------------------------------------------------------

std::string user_graph::sound_branch(const codec& c) const {
  return std::string(c.parse) + " ! " + c.decode +
         " ! audioconvert ! audioresample ! audio/x-raw,format=S16LE,layout=interleaved,"
         "rate=48000,channels=" +
         std::to_string(channels_) + " ! " + kSink + "sound";
}

std::string user_graph::video_branch(const codec& c) const {
  const std::string sink = kSink;
  const bool h264 = std::string(c.name) == "h264";
  std::string text = std::string(c.parse) + " ! tee name=coded ! " + sink + "coded_out";
  if (to_.takes(form::kAccessUnits) && h264) {
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

// `take` gets what the sink called `name` of the track's branch receives, placed in time.
void user_graph::receive(const std::shared_ptr<track>& t, const char* name,
                         std::function<void(GstSample*, media_sample&)> take) {
  ++open_sinks_;
  on_samples(
      child(t->branch, name),
      [pipeline = pipeline_.get(), take = std::move(take)](GstSample* from) {
        media_sample sample;
        if (take_sample(from, pipeline, sample)) take(from, sample);
      },
      [this] {
        if (--open_sinks_ > 0) return;
        poster_.post([this] {
          // A source has sinks of its own, which this end doesn't reach.
          if (!finish_reason_.empty()) done(finish_reason_);
        });
      });
}

void user_graph::connect(const std::shared_ptr<track>& t) {
  if (t->kind->kind == media_kind::kVideo) return connect_video(t);
  receive(t, "sound", [this, t](GstSample* /*from*/, media_sample& sample) {
    note(t, sample);
    GstMapInfo map{};
    if (!is_current(*t, sample.time) ||
        gst_buffer_map(sample.buffer.get(), &map, GST_MAP_READ) == FALSE) {
      return;
    }
    const size_t frame_bytes = sizeof(int16_t) * static_cast<size_t>(channels_);
    const auto* const samples = reinterpret_cast<const int16_t*>(map.data);
    to_.each(form::kSound,
             [&](consumer& one) { one.on_sound(sample.time, samples, map.size / frame_bytes); });
    gst_buffer_unmap(sample.buffer.get(), &map);
  });
}

void user_graph::connect_video(const std::shared_ptr<track>& t) {
  follow_rotation(t);
  receive(t, "coded_out", [this, t](GstSample* /*from*/, media_sample& sample) {
    note(t, sample);
    if (!to_.takes(form::kCodedPictures)) return;
    const auto shared = std::make_shared<media_sample>(std::move(sample));
    poster_.post([this, t, shared] {
      if (!is_current(*t, shared->time)) return;
      to_.each(form::kCodedPictures,
               [&](consumer& one) { one.on_coded_picture(*shared, *t->kind); });
    });
  });
  if (child(t->branch, "h264") != nullptr) {
    receive(t, "h264", [this, t](GstSample* /*from*/, media_sample& sample) {
      if (!is_current(*t, sample.time)) return;
      to_.each(form::kAccessUnits, [&](consumer& one) { one.on_access_unit(sample, t->rotation); });
    });
  }
  if (to_.takes(form::kUprightPictures)) {
    receive(t, "upright", [this, t](GstSample* from, media_sample& sample) {
      if (!is_current(*t, sample.time)) return;
      to_.each(form::kUprightPictures,
               [&](consumer& one) { one.on_upright_picture(from, sample.time); });
    });
  }
  if (to_.takes(form::kPictures)) {
    // Of the decoder, and of those who make its pictures plain where they have something to do.
    offer_picture_memory_along(t->branch);
    const pad_ptr in(gst_element_get_static_pad(child(t->branch, "raw"), "sink"));
    offer_picture_memory(in.get());
    receive(t, "pictures", [this, t](GstSample* from, media_sample& sample) {
      if (!is_current(*t, sample.time)) return;
      to_.each(form::kPictures,
               [&](consumer& one) { one.on_picture(from, sample.time, t->rotation); });
    });
  }
  if (!to_.takes(form::kStills)) return;
  pick_stills(t);
  receive(t, "stills", [this, t](GstSample* /*from*/, media_sample& sample) {
    if (!is_current(*t, sample.time)) return;
    to_.each(form::kStills, [&](consumer& one) { one.on_still(sample, t->rotation); });
  });
}

void user_graph::follow_rotation(const std::shared_ptr<track>& t) {
  add_probe(t->source.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [t](GstPadProbeInfo* info) {
    GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
    if (type_of(event) == GST_EVENT_TAG) {
      GstTagList* tags = nullptr;
      gst_event_parse_tag(event, &tags);
      t->rotation = rotation_of(tags, t->rotation);
    }
    return GST_PAD_PROBE_OK;
  });
}

// Of all pictures one an interval goes on to the encoder.
void user_graph::pick_stills(const std::shared_ptr<track>& t) {
  const pad_ptr in(gst_element_get_static_pad(child(t->branch, "still_in"), "sink"));
  add_probe(in.get(), GST_PAD_PROBE_TYPE_BUFFER, [this, t](GstPadProbeInfo* info) {
    const auto at = static_cast<int64_t>(times_of(GST_PAD_PROBE_INFO_BUFFER(info)).pts);
    if (!to_.wants(form::kStills) || at < t->next_still) return GST_PAD_PROBE_DROP;
    // On a grid, so that the pictures don't drift, unless the user was away.
    const int64_t interval = still_interval_;
    t->next_still = at - t->next_still < interval && t->next_still > 0 ? t->next_still + interval
                                                                       : at + interval;
    return GST_PAD_PROBE_OK;
  });
}

// ---- What comes ----------------------------------------------------------------------------

bool user_graph::is_current(const track& t, media_time time) {
  const std::lock_guard<std::mutex> guard(tracks_lock_);
  track_choice& choice = t.kind->kind == media_kind::kVideo ? current_video_ : current_sound_;
  return choice.counts(t.number, time);
}

void user_graph::note(const std::shared_ptr<track>& t, const media_sample& sample) {
  if (std::exchange(t->seen, true)) return;
  int width = 0;
  int height = 0;
  const GstStructure* const fields = gst_caps_get_structure(sample.caps.get(), 0);
  gst_structure_get_int(fields, "width", &width);
  gst_structure_get_int(fields, "height", &height);
  poster_.post([this, t, width, height] { on_first(*t, width, height); });
}

void user_graph::on_first(const track& t, int width, int height) {
  bool& flag = t.kind->kind == media_kind::kVideo ? video_ : sound_;
  if (std::exchange(flag, true)) return;
  if (t.kind->kind == media_kind::kVideo) return events_.first_video(width, height);
  events_.first_sound();
}

void user_graph::request_key_frame() {
  if (now() - key_asked_ < kKeyFrameInterval) return;
  key_asked_ = now();
  std::vector<std::shared_ptr<track>> tracks;
  {
    const std::lock_guard<std::mutex> guard(tracks_lock_);
    tracks = tracks_;
  }
  for (const auto& t : tracks) {
    if (t->kind->kind != media_kind::kVideo) continue;
    gst_pad_send_event(t->source.get(),
                       gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
  }
}

// ---- The end -------------------------------------------------------------------------------

void user_graph::finish(const std::string& why, bool ended) {
  if (finished_ || !finish_reason_.empty()) return;
  finish_reason_ = why;
  tell_what_never_came(kFirstKeyFramePatience);
  std::vector<std::pair<GstPad*, GstPad*>> ends;
  {
    const std::lock_guard<std::mutex> guard(tracks_lock_);
    for (const end& e : ends_) ends.emplace_back(e.source.get(), e.in.get());
  }
  // Or all of them have ended before.
  if (ends.empty() || open_sinks_ == 0) return poster_.post([this, why] { done(why); });
  give_up_timer_ = {poster_.loop(), kFinishLimitMs, [this] { done(finish_reason_); }};
  if (ended) return;
  // Nothing more from the source, and the end of the stream behind what has come: the source itself
  // may hold seconds of media that must not be recorded any more.
  for (const auto& [source, in] : ends) {
    gst_pad_add_probe(
        source,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                     GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
        drop, nullptr, nullptr);
    gst_pad_send_event(in, gst_event_new_eos());
  }
}

// A source that ended by itself has had all its chances; one that was cut off, if it sent for so
// long. Behind what is on its way through the loop.
void user_graph::tell_what_never_came(media_time patience) {
  poster_.post([this, patience, at = now()] {
    std::vector<const codec*> silent;
    {
      const std::lock_guard<std::mutex> guard(tracks_lock_);
      for (const auto& t : tracks_) {
        if (has(t->kind->kind) || t->refused || at - t->since < patience) continue;
        silent.push_back(t->kind);
      }
    }
    for (const codec* const c : silent) {
      events_.missing({name_of(c->kind), c->name, "nothing of it could be parsed or decoded"});
    }
    if (!offered_ && patience == 0s)
      events_.missing({"all", "", "there is no sound or picture in it"});
  });
}

void user_graph::done(const std::string& why) {
  if (std::exchange(finished_, true)) return;
  give_up_timer_.stop();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  // Behind the samples that are still on their way through the loop.
  poster_.post([this, why] { events_.finished(why); });
}

}  // namespace zelta::core_service::media
