// SPDX-License-Identifier: Apache-2.0
#include "level_meter.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <vector>

#include "core_service/channel/glib.h"
#include "core_service/media/gst.h"

namespace zelta::view {
namespace {

using core_service::media::bus_ptr;
using core_service::media::element_ptr;
using core_service::media::message_ptr;
using core_service::media::pad_ptr;
using core_service::media::sample_ptr;

constexpr int kRate = 8000;
constexpr size_t kStepSamples = kRate * kLevelStepMs / 1000;
// A time that is damaged may be any.
constexpr size_t kMostSteps = size_t{7} * 24 * 3600 * 1000 / kLevelStepMs;
constexpr double kLowestDb = -60;
// A full sine's.
constexpr double kFullSquare = 32768.0 * 32768.0 / 2;
constexpr GstClockTime kPatience = 200 * GST_MSECOND;
// 20 s, for a disk that is busy.
constexpr int kMostWaits = 100;

struct pipeline_end {
  void operator()(GstElement* pipeline) const {
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }
};
using pipeline_ptr = std::unique_ptr<GstElement, pipeline_end>;

// Sums up squares a step.
class level_line {
 public:
  void add(int64_t at_ms, const int16_t* samples, size_t count) {
    size_t place = static_cast<size_t>(std::max<int64_t>(at_ms, 0)) * kRate / 1000;
    for (size_t i = 0; i < count; ++i, ++place) {
      const size_t step = place / kStepSamples;
      if (step >= kMostSteps) return;
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

// What the recorder writes, and sound without a container. Everything else stays as it is, and goes
// nowhere: pictures, which nobody needs, and playlists, which would have addresses fetched that
// somebody put into them.
gboolean takes_on(GstElement* /*decoder*/, GstPad* /*pad*/, GstCaps* caps, gpointer /*unused*/) {
  static const std::set<std::string> kTaken{"video/quicktime", "audio/x-m4a",  "video/webm",
                                            "audio/webm",      "audio/x-opus", "audio/mpeg",
                                            "audio/x-wav",     "audio/x-raw"};
  if (gst_caps_get_size(caps) == 0) return FALSE;
  return kTaken.count(gst_structure_get_name(gst_caps_get_structure(caps, 0))) > 0;
}

void link_sound(GstElement* /*decoder*/, GstPad* pad, gpointer convert) {
  const pad_ptr sink(gst_element_get_static_pad(GST_ELEMENT(convert), "sink"));
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
  const bus_ptr bus(gst_element_get_bus(pipeline));
  const message_ptr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
  if (!message) return "";
  core_service::glib_error error;
  gst_message_parse_error(message.get(), error.out(), nullptr);
  return error.text();
}

}  // namespace

std::optional<std::string> measure_levels(int file, const std::atomic<bool>& stop,
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
  const element_ptr in(gst_bin_get_by_name(bin, "in"));
  const element_ptr decoder(gst_bin_get_by_name(bin, "decoder"));
  const element_ptr convert(gst_bin_get_by_name(bin, "convert"));
  const element_ptr out(gst_bin_get_by_name(bin, "out"));
  if (!in || !decoder || !convert || !out) {
    error = "the decoder can't be made: gstreamer1.0-plugins-base should be installed";
    return std::nullopt;
  }
  // Opened anew by its descriptor: demultiplexers go to and fro in it, which a source of
  // descriptors doesn't let them.
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  g_object_set(in.get(), "location", path.c_str(), nullptr);
  g_signal_connect(decoder.get(), "autoplug-continue", G_CALLBACK(takes_on), nullptr);
  g_signal_connect(decoder.get(), "pad-added", G_CALLBACK(link_sound), convert.get());
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  level_line line;
  GstAppSink* const sink = GST_APP_SINK(out.get());
  int waits = 0;
  while (waits < kMostWaits && !stop) {
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
  const bool whole = !stop && waits < kMostWaits;
  if (stop) error = "it was stopped";
  if (waits == kMostWaits) error = "nothing came of it for 20 s";
  if (line.empty() && error.empty()) error = "there is no sound in it";
  if (!whole || line.empty()) return std::nullopt;
  return line.bytes();
}

}  // namespace zelta::view
