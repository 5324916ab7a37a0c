// SPDX-License-Identifier: Apache-2.0
#include "level_meter.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "core_service/channel/glib.h"

namespace zelta::view {
namespace {

constexpr int kRate = 8000;
constexpr size_t kStepSamples = kRate * kLevelStepMs / 1000;
constexpr double kLowestDb = -60;
// A full sine's.
constexpr double kFullSquare = 32768.0 * 32768.0 / 2;
constexpr GstClockTime kPatience = 200 * GST_MSECOND;
// For a disk that is busy.
constexpr int kMostWaits = 100;

struct pipeline_end {
  void operator()(GstElement* pipeline) const {
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }
};
using pipeline_ptr = std::unique_ptr<GstElement, pipeline_end>;

struct object_unref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};
template <class T>
using gst_ptr = std::unique_ptr<T, object_unref>;

struct sample_unref {
  void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
using sample_ptr = std::unique_ptr<GstSample, sample_unref>;

struct message_unref {
  void operator()(GstMessage* message) const { gst_message_unref(message); }
};

// Sums up squares a step.
class level_line {
 public:
  void add(int64_t at_ms, const int16_t* samples, size_t count) {
    size_t place = static_cast<size_t>(std::max<int64_t>(at_ms, 0)) * kRate / 1000;
    for (size_t i = 0; i < count; ++i, ++place) {
      const size_t step = place / kStepSamples;
      if (step >= squares_.size()) squares_.resize(step + 1);
      squares_[step] += double(samples[i]) * samples[i];
    }
  }

  std::string bytes() const {
    std::string made;
    for (const double sum : squares_) {
      const double db = 10 * std::log10(std::max(sum / kStepSamples / kFullSquare, 1e-9));
      const double share = std::clamp(1 - db / kLowestDb, 0.0, 1.0);
      made += static_cast<char>(static_cast<unsigned char>(std::lround(share * 255)));
    }
    return made;
  }
  bool empty() const { return squares_.empty(); }

 private:
  std::vector<double> squares_;
};

// Pictures stay as they are, and go nowhere.
gboolean takes_on(GstElement* /*decoder*/, GstPad* /*pad*/, GstCaps* caps, gpointer /*unused*/) {
  const char* const name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  return !g_str_has_prefix(name, "video/") || g_str_equal(name, "video/quicktime") ||
         g_str_equal(name, "video/webm");
}

void link_sound(GstElement* /*decoder*/, GstPad* pad, gpointer convert) {
  const gst_ptr<GstPad> sink(gst_element_get_static_pad(GST_ELEMENT(convert), "sink"));
  // Refused for pictures, and for a second sound.
  gst_pad_link(pad, sink.get());
}

void add_sample(GstSample* sample, level_line& line) {
  GstBuffer* const buffer = gst_sample_get_buffer(sample);
  GstMapInfo map;
  if (buffer == nullptr || !gst_buffer_map(buffer, &map, GST_MAP_READ)) return;
  const GstSegment* const segment = gst_sample_get_segment(sample);
  const GstClockTime time =
      gst_segment_to_stream_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
  if (GST_CLOCK_TIME_IS_VALID(time)) {
    line.add(static_cast<int64_t>(time / GST_MSECOND), reinterpret_cast<const int16_t*>(map.data),
             map.size / sizeof(int16_t));
  }
  gst_buffer_unmap(buffer, &map);
}

std::string error_of(GstElement* pipeline) {
  const gst_ptr<GstBus> bus(gst_element_get_bus(pipeline));
  const std::unique_ptr<GstMessage, message_unref> message(
      gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
  if (!message) return "";
  core_service::glib_error error;
  gst_message_parse_error(message.get(), error.out(), nullptr);
  return error.text();
}

}  // namespace

std::optional<std::string> measure_levels(const std::string& path, const std::atomic<bool>& stop,
                                          std::string& error) {
  core_service::glib_error fault;
  const pipeline_ptr pipeline(gst_parse_launch(
      "filesrc name=in ! decodebin name=decoder audioconvert name=convert ! audioresample ! "
      "audio/x-raw,format=S16LE,rate=8000,channels=1 ! appsink name=out sync=false max-buffers=64",
      fault.out()));
  if (!pipeline) {
    error = fault.text();
    return std::nullopt;
  }
  GstBin* const bin = GST_BIN(pipeline.get());
  const gst_ptr<GstElement> in(gst_bin_get_by_name(bin, "in"));
  const gst_ptr<GstElement> decoder(gst_bin_get_by_name(bin, "decoder"));
  const gst_ptr<GstElement> convert(gst_bin_get_by_name(bin, "convert"));
  const gst_ptr<GstElement> out(gst_bin_get_by_name(bin, "out"));
  if (!in || !decoder || !convert || !out) {
    error = "the decoder can't be made: gstreamer1.0-plugins-base should be installed";
    return std::nullopt;
  }
  g_object_set(in.get(), "location", path.c_str(), nullptr);
  g_signal_connect(decoder.get(), "autoplug-continue", G_CALLBACK(takes_on), nullptr);
  g_signal_connect(decoder.get(), "pad-added", G_CALLBACK(link_sound), convert.get());
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  level_line line;
  GstAppSink* const sink = GST_APP_SINK(out.get());
  for (int waits = 0; waits < kMostWaits && !stop;) {
    const sample_ptr sample(gst_app_sink_try_pull_sample(sink, kPatience));
    if (sample) {
      add_sample(sample.get(), line);
      waits = 0;
      continue;
    }
    error = error_of(pipeline.get());
    if (!error.empty() || gst_app_sink_is_eos(sink)) break;
    ++waits;
  }
  if (stop) error = "it was stopped";
  if (stop || (line.empty() && !error.empty())) return std::nullopt;
  return line.bytes();
}

}  // namespace zelta::view
