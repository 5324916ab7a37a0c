// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/unit_source.h"

#include <algorithm>
#include <string>
#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

namespace zelta::core_service::media {
namespace {

using namespace std::chrono_literals;

// So long a decoder may take for what it has.
constexpr media_time kLastUnits = 3s;

GstClockTime since(media_time base, media_time time) {
  return static_cast<GstClockTime>(std::max(time - base, media_time::zero()).count());
}

}  // namespace

unit_source::unit_source(std::function<void()> ask)
    : ask_(std::move(ask)), bin_(GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr)))) {}

element_ptr unit_source::bin() const {
  return element_ptr(GST_ELEMENT(gst_object_ref(bin_.get())));
}

void unit_source::push(int number, const encoded_unit& unit) {
  const media_time base(static_cast<int64_t>(gst_element_get_base_time(bin_.get())));
  remove_ended();
  const auto [at, is_new] = tracks_.try_emplace(number);
  track& to = at->second;
  const media_sample made = to.samples.of(unit);
  if (is_new) show(number, to, made.caps.get());
  set_times(made.buffer.get(),
            {since(base, unit.time), since(base, unit.decode_time),
             unit.duration > media_time::zero() ? static_cast<GstClockTime>(unit.duration.count())
                                                : GST_CLOCK_TIME_NONE});
  const sample_ptr sample(gst_sample_new(made.buffer.get(), made.caps.get(), nullptr, nullptr));
  say_pushed();
  gst_app_src_push_sample(GST_APP_SRC(to.source), sample.get());
}

void unit_source::show(int number, track& made, GstCaps* caps) {
  made.source = gst_element_factory_make("appsrc", nullptr);
  g_object_set(made.source, "format", GST_FORMAT_TIME, "is-live", TRUE, "max-bytes", guint64{0},
               "caps", caps, nullptr);
  add(bin_.get(), element_ptr(GST_ELEMENT(gst_object_ref_sink(made.source))));
  const pad_ptr out(gst_element_get_static_pad(made.source, "src"));
  add_probe(out.get(), GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, [ask = ask_](GstPadProbeInfo* info) {
    if (gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) == FALSE) {
      return GST_PAD_PROBE_OK;
    }
    ask();
    return GST_PAD_PROBE_DROP;
  });
  // It says what it sends by its template: an appsrc says so only once it has sent.
  const std::string name = "track_" + std::to_string(number);
  const std::unique_ptr<GstPadTemplate, object_unref> told(GST_PAD_TEMPLATE(gst_object_ref_sink(
      gst_pad_template_new(name.c_str(), GST_PAD_SRC, GST_PAD_SOMETIMES, caps))));
  GstPad* const shown = gst_ghost_pad_new_from_template(name.c_str(), out.get(), told.get());
  made.shown.reset(GST_PAD(gst_object_ref(shown)));
  gst_pad_set_active(shown, TRUE);
  gst_element_add_pad(bin_.get(), shown);
  gst_element_sync_state_with_parent(made.source);
}

void unit_source::end_track(int number) {
  const auto at = tracks_.find(number);
  if (at == tracks_.end()) return;
  gst_app_src_end_of_stream(GST_APP_SRC(at->second.source));
  ended_.push_back({now(), std::move(at->second)});
  tracks_.erase(at);
}

// Of which everything has come out.
void unit_source::remove_ended() {
  for (; !ended_.empty() && now() - ended_.front().since > kLastUnits; ended_.pop_front()) {
    const track& gone = ended_.front().was;
    gst_element_remove_pad(bin_.get(), gone.shown.get());
    gst_element_set_state(gone.source, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(bin_.get()), gone.source);
  }
}

void unit_source::end() {
  for (const auto& [number, one] : tracks_) gst_app_src_end_of_stream(GST_APP_SRC(one.source));
}

}  // namespace zelta::core_service::media
