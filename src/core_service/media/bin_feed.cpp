// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/bin_feed.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include <gst/video/video.h>

#include "core_service/media/decoder_guard.h"
#include "core_service/media/format_caps.h"
#include "core_service/media/picture_size.h"
#include "core_service/media/thread_marks.h"

namespace zelta::core_service::media {
namespace {

using namespace std::chrono_literals;

constexpr int kStopLimitMs = 3000;
constexpr media_time kKeyFrameInterval = 1s;
// Whoever leaves sooner may not have sent one yet.
constexpr media_time kFirstUnitPatience = 5s;
// A file's demuxers, its tracks, and an encoder of several threads.
constexpr size_t kThreads = 16;
// Of some ten seconds: a loop that stands still for longer is not waited for.
constexpr int kMostWaiting = 1000;

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

// The sender's word: "rotate-90", "flip-rotate-180".
picture_turn turn_of(const GstTagList* tags, picture_turn present) {
  char* text = nullptr;
  if (gst_tag_list_get_string(tags, GST_TAG_IMAGE_ORIENTATION, &text) == FALSE) return present;
  const std::unique_ptr<char, void (*)(void*)> owner(text, g_free);
  const bool flipped = std::strncmp(text, "flip-", 5) == 0;
  const char* const rest = text + (flipped ? 5 : 0);
  return {std::strncmp(rest, "rotate-", 7) == 0 ? std::atoi(rest + 7) : 0, flipped};
}

// The buffer's own memory, held as long as anybody holds the bytes.
shared_bytes bytes_in(GstBuffer* buffer) {
  struct mapped {
    explicit mapped(GstBuffer* of) : buffer(gst_buffer_ref(of)) {
      if (gst_buffer_map(of, &map, GST_MAP_READ) == FALSE) buffer.reset();
    }
    mapped(const mapped&) = delete;
    mapped& operator=(const mapped&) = delete;
    ~mapped() {
      if (buffer) gst_buffer_unmap(buffer.get(), &map);
    }
    buffer_ptr buffer;
    GstMapInfo map{};
  };
  const auto owner = std::make_shared<mapped>(buffer);
  if (!owner->buffer) return {};
  return {owner, owner->map.data, owner->map.size};
}

}  // namespace

bin_feed::bin_feed(uint32_t uid, element_ptr bin, bool complete, base::event_loop& loop,
                   base::logger log)
    : uid_(uid),
      log_(std::move(log)),
      poster_(loop),
      pipeline_(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)))),
      bin_(bin.get()),
      complete_(complete) {
  use_system_clock(pipeline_.get());
  add(pipeline_.get(), std::move(bin));
  mark_threads(pipeline_.get(), uid_, nullptr);
}

bin_feed::~bin_feed() {
  watch_.reset();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

size_t bin_feed::threads() const {
  return kThreads;
}

void bin_feed::start(kinds taken, events told) {
  taken_ = taken;
  events_ = std::move(told);
  watch_.emplace(
      pipeline_.get(), poster_.loop(),
      bus_watch::events{[this] { end("end of media", false); },
                        [this](const std::string& why, const std::string& /*from*/, bool /*disk*/) {
                          // What comes behind the end is its consequence.
                          if (!over_) leave_out({"all", "", why});
                          end("error: " + why, true);
                        },
                        [this](const GstCaps* caps) { leave_out_unknown(caps); }});
  if (complete_) {
    GstIterator* const pads = gst_element_iterate_src_pads(bin_);
    gst_iterator_foreach(
        pads,
        [](const GValue* item, gpointer self) {
          static_cast<bin_feed*>(self)->attach(GST_PAD(g_value_get_object(item)));
        },
        this);
    gst_iterator_free(pads);
    note_kinds();
  } else {
    g_signal_connect(bin_, "pad-added", G_CALLBACK(on_pad_added), this);
    g_signal_connect(bin_, "no-more-pads", G_CALLBACK(on_no_more_pads), this);
  }
  // Known before anything plays: a track that is found while the pipeline is still on the way plays
  // at once, and what it sends would stand at a time that has no zero yet.
  const auto zero = static_cast<GstClockTime>(now().count());
  gst_element_set_start_time(pipeline_.get(), GST_CLOCK_TIME_NONE);
  gst_element_set_base_time(pipeline_.get(), zero);
  gst_element_set_base_time(bin_, zero);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

// ---- The bin's tracks ----------------------------------------------------------------------

void bin_feed::on_pad_added(GstElement* /*bin*/, GstPad* pad, gpointer self) {
  static_cast<bin_feed*>(self)->attach(pad);
}

void bin_feed::on_no_more_pads(GstElement* /*bin*/, gpointer self) {
  auto* const feed = static_cast<bin_feed*>(self);
  feed->poster_.post([feed] { feed->note_kinds(); });
}

void bin_feed::note_kinds() {
  kinds may_come{false, false};
  {
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto& t : tracks_) {
      (t->kind->kind == media_kind::kVideo ? may_come.video : may_come.sound) = true;
    }
  }
  if (!may_come.video && !may_come.sound) log_.warn("sends nothing that is to be recorded");
  events_.kinds_known(may_come);
}

bool bin_feed::is_taken(media_kind kind) const {
  return kind == media_kind::kVideo ? taken_.video : taken_.sound;
}

// On the loop's thread, or one of the bin's.
void bin_feed::attach(GstPad* pad) {
  const caps_ptr caps = caps_of(pad);
  const codec* const c = find_codec(caps.get());
  if (c == nullptr) leave_out_unknown(caps.get());
  if (c != nullptr) offered_ = true;
  if (c == nullptr || !is_taken(c->kind)) return discard(pad);
  const bool anew = c->kept == storage::kAsH264;
  const codec* const kind = anew ? find_codec("h264") : c;
  std::string branch = std::string("identity name=asked ! ") + kind->parse +
                       " ! appsink sync=false async=false name=units";
  if (anew) {
    const std::string again = as_h264(*c, caps.get());
    if (again.empty()) {
      leave_out({name_of(c->kind), c->name, "no file takes it, and there is no H.264 encoder"});
      return discard(pad);
    }
    branch = again + " ! " + branch;
  }
  std::string error;
  element_ptr made = make_bin(branch, error);
  if (!made) {
    leave_out({name_of(c->kind), c->name, error});
    return discard(pad);
  }
  if (anew) {
    log_.warn(std::string("its video (") + c->name +
              ") is decoded and encoded as H.264, because no file takes it");
  }
  const auto t = std::make_shared<track>();
  t->kind = kind;
  t->since = now();
  GstElement* const led_to = add(pipeline_.get(), std::move(made));
  t->asked.reset(gst_element_get_static_pad(child(led_to, "asked"), "sink"));
  if (anew) {
    guard_decoders(led_to, *c, [this, t, c] {
      t->refused = true;
      leave_out({name_of(c->kind), c->name, "its pictures are too large to decode"});
    });
  }
  {
    // Before it may play, and as it is when it does.
    const std::lock_guard<std::mutex> guard(lock_);
    tracks_.push_back(t);
    t->number = static_cast<int>(tracks_.size());
  }
  receive(t, pad, led_to);
  expect(*kind, caps.get());
  lead(pad, led_to);
}

// All tracks of a bin are found before any of them plays, so this is known before the first unit.
// Of several the first is the likely one.
void bin_feed::expect(const codec& kind, const GstCaps* caps) {
  if (kind.kind != media_kind::kAudio) return;
  const format_ptr format = format_of(caps);
  if (!format || format->channels == 0 || std::exchange(sound_expected_, true)) return;
  poster_.post([this, format] { events_.sound_expected(format); });
}

// The branch runs before it is linked: an event that a source pushes into one that doesn't run yet
// would make its next buffer fail.
void bin_feed::lead(GstPad* pad, GstElement* branch) {
  if (!complete_) gst_element_set_state(branch, GST_STATE_PLAYING);
  pad_ptr in(gst_element_get_static_pad(branch, "sink"));
  gst_pad_link(pad, in.get());
  const std::lock_guard<std::mutex> guard(lock_);
  links_.push_back({pad_ptr(GST_PAD(gst_object_ref(pad))), std::move(in)});
}

void bin_feed::discard(GstPad* pad) {
  GstElement* const sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  gst_bin_add(GST_BIN(pipeline_.get()), sink);
  lead(pad, sink);
}

// Any thread.
void bin_feed::leave_out(missing_medium what) {
  offered_ = true;
  poster_.post([this, what = std::move(what)] { events_.missing(what); });
}

// Texts and data beside the media are no loss of media.
void bin_feed::leave_out_unknown(const GstCaps* caps) {
  const GstStructure* const fields = gst_caps_get_structure(caps, 0);
  const char* const hidden = gst_structure_get_string(fields, "original-media-type");
  const std::string name = hidden != nullptr ? hidden : gst_structure_get_name(fields);
  const auto kind = kind_of(name);
  if (!kind) return log_.notice("leaves out what is no sound or picture: " + name);
  if (!is_taken(*kind)) return;
  leave_out({name_of(*kind), name,
             hidden != nullptr ? "it is encrypted, and no key to it is known"
                               : "it is none of the codecs that are recorded"});
}

// ---- Units ---------------------------------------------------------------------------------

void bin_feed::receive(const std::shared_ptr<track>& t, GstPad* pad, GstElement* branch) {
  add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [t](GstPadProbeInfo* info) {
    GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
    if (type_of(event) == GST_EVENT_TAG) {
      GstTagList* tags = nullptr;
      gst_event_parse_tag(event, &tags);
      t->turn = turn_of(tags, t->turn);
    }
    return GST_PAD_PROBE_OK;
  });
  ++open_sinks_;
  on_samples(
      child(branch, "units"), [this, t](GstSample* from) { on_sample(t, from); },
      [this, t] {
        const bool last = --open_sinks_ == 0;
        poster_.post([this, t, last] {
          events_.track_ended(t->number);
          // A bin has sinks of its own, which this end doesn't reach.
          if (last && stopped_) done();
        });
      });
}

void bin_feed::on_sample(const std::shared_ptr<track>& t, GstSample* from) {
  media_sample sample;
  if (!take_sample(from, pipeline_.get(), sample)) return;
  if (sample.caps.get() != t->caps.get()) {
    t->caps.reset(gst_caps_ref(sample.caps.get()));
    follow_format(*t, sample.caps.get());
  }
  if (!t->format) return;
  t->seen = true;
  encoded_unit unit;
  unit.bytes = bytes_in(sample.buffer.get());
  if (unit.bytes.empty()) return;
  unit.format = t->format;
  unit.time = sample.time;
  unit.decode_time = sample.decode_time;
  unit.duration = sample.duration;
  unit.key = sample.key;
  unit.turn = t->turn;
  // Without one picture those behind it are of no use before the next key frame.
  t->broken = waiting_ >= kMostWaiting || (t->broken && !unit.key);
  if (t->broken) {
    ++lost_;
    return request_key_frame();
  }
  ++waiting_;
  poster_.post([this, number = t->number, unit = std::move(unit)] {
    --waiting_;
    events_.unit(number, unit);
  });
}

// The same object while nothing changes that a file, or a decoder of sound, is told once.
void bin_feed::follow_format(track& t, const GstCaps* caps) {
  const format_ptr found = format_of(caps);
  if (!found && !t.refused.exchange(true)) {
    leave_out({name_of(t.kind->kind), t.kind->name,
               "it doesn't say its format, or has pictures of more than " +
                   std::to_string(kMostPixelsAcross) + " pixels a side"});
  }
  const bool same = found && t.format && *found == *t.format &&
                    (t.kind->kind == media_kind::kVideo || found->caps == t.format->caps ||
                     (found->caps && t.format->caps &&
                      gst_caps_is_equal(found->caps.get(), t.format->caps.get()) != FALSE));
  if (!same) t.format = found;
}

void bin_feed::request_key_frame() {
  std::vector<std::shared_ptr<track>> tracks;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (now() - key_asked_ < kKeyFrameInterval) return;
    key_asked_ = now();
    tracks = tracks_;
  }
  for (const auto& t : tracks) {
    if (t->kind->kind != media_kind::kVideo) continue;
    gst_pad_push_event(t->asked.get(),
                       gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
  }
}

// ---- The end -------------------------------------------------------------------------------

void bin_feed::stop(std::function<void()> stopped) {
  const bool is_over = over_;
  stopped_ = std::move(stopped);
  if (!is_over) tell_what_never_came(kFirstUnitPatience);
  std::vector<std::pair<GstPad*, GstPad*>> ends;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    for (const link& one : links_) ends.emplace_back(one.source.get(), one.in.get());
  }
  // Or all of them have ended before.
  if (is_over || ends.empty() || open_sinks_ == 0) return poster_.post([this] { done(); });
  give_up_timer_ = {poster_.loop(), kStopLimitMs, [this] { done(); }};
  // Nothing more from the bin, and the end of the stream behind what has come: the bin itself may
  // hold seconds of media that must not be recorded any more.
  for (const auto& [source, in] : ends) {
    gst_pad_add_probe(
        source,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                     GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
        drop, nullptr, nullptr);
    gst_pad_send_event(in, gst_event_new_eos());
  }
}

// A bin that ended by itself has had all its chances; one that was cut off, if it sent for so long.
// Behind what is on its way through the loop.
void bin_feed::tell_what_never_came(media_time patience) {
  poster_.post([this, patience, at = now()] {
    std::vector<const codec*> silent;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      for (const auto& t : tracks_) {
        if (!t->seen && !t->refused && at - t->since >= patience) silent.push_back(t->kind);
      }
    }
    for (const codec* const c : silent) {
      events_.missing({name_of(c->kind), c->name, "nothing of it could be parsed or decoded"});
    }
    if (!offered_ && patience == 0s) {
      events_.missing({"all", "", "there is no sound or picture in it"});
    }
  });
}

// By itself. Why nothing came of what failed is told.
void bin_feed::end(const std::string& why, bool failed) {
  if (stopped_) return done();
  if (std::exchange(over_, true)) return;
  if (failed) {
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  } else {
    tell_what_never_came(0s);
  }
  // Behind the units that are still on their way through the loop.
  poster_.post([this, why] {
    if (!stopped_) events_.over(why);
  });
}

void bin_feed::done() {
  if (!stopped_) return;
  give_up_timer_.stop();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  poster_.post([stopped = std::exchange(stopped_, nullptr)] { stopped(); });
}

}  // namespace zelta::core_service::media
