// SPDX-License-Identifier: Apache-2.0
// WebM, by a pipeline of GStreamer's:
//
//     write(video) ─▶ queue ─▶ webmmux ─▶ file
//     write(sound) ─▶ queue ─┘
//
// The queues outlast hiccups of a disk.
#include <algorithm>
#include <optional>
#include <utility>

#include <gst/app/gstappsrc.h>

#include "core_service/descriptors.h"
#include "core_service/files/media_file.h"

namespace zelta::core_service::files {
namespace {

using namespace media;

std::string description_of(const media_file::contents& holds) {
  // Unbuffered: what is written must outlive this process.
  std::string text =
      "webmmux name=muxer offset-to-zero=true ! filesink name=file async=false sync=false "
      "buffer-mode=unbuffered";
  const std::string source = "appsrc format=time max-bytes=0 name=";
  if (holds.video) text += " " + source + "video ! muxer.video_0";
  if (holds.sound) text += " " + source + "sound ! muxer.audio_0";
  return text;
}

GstClockTime clock_time(media_time time) {
  return static_cast<GstClockTime>(std::max(time, media_time::zero()).count());
}

class webm_file final : public media_file {
 public:
  webm_file(element_ptr pipeline, const contents& holds, base::event_loop& loop, done_callback done)
      : media_file(holds, loop, std::move(done)),
        pipeline_(std::move(pipeline)),
        video_(child(pipeline_.get(), "video")),
        sound_(child(pipeline_.get(), "sound")) {
    watch_.emplace(
        pipeline_.get(), loop,
        bus_watch::events{[this] { give_up("", false); },
                          [this](const std::string& why, const std::string& from, bool disk) {
                            disk = disk && from == "file" && !are_descriptors_used_up();
                            give_up(why, disk);
                          }});
    gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  }
  ~webm_file() override { stop(); }

 private:
  void mux(media_kind kind, const media_sample& sample) override {
    // The samples are shared with others, the times are this file's own.
    GstBuffer* const buffer = gst_buffer_copy(sample.buffer.get());
    set_times(
        buffer,
        {clock_time(sample.time),
         kind == media_kind::kVideo ? clock_time(sample.decode_time) : GST_CLOCK_TIME_NONE,
         sample.duration > media_time::zero() ? clock_time(sample.duration) : GST_CLOCK_TIME_NONE});
    const sample_ptr whole(gst_sample_new(buffer, sample.caps.get(), nullptr, nullptr));
    gst_buffer_unref(buffer);
    gst_app_src_push_sample(GST_APP_SRC(kind == media_kind::kVideo ? video_ : sound_), whole.get());
  }

  void complete() override {
    for (GstElement* const source : {video_, sound_}) {
      if (source != nullptr) gst_app_src_end_of_stream(GST_APP_SRC(source));
    }
  }

  // Everything is written to the file before this returns.
  void stop() override {
    watch_.reset();
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  }

  size_t waiting_bytes() const override {
    size_t sum = 0;
    for (GstElement* const source : {video_, sound_}) {
      if (source != nullptr) sum += gst_app_src_get_current_level_bytes(GST_APP_SRC(source));
    }
    return sum;
  }

  element_ptr pipeline_;
  std::optional<bus_watch> watch_;
  // Borrowed from the pipeline; null: the file holds none.
  GstElement* const video_;
  GstElement* const sound_;
};

}  // namespace

std::unique_ptr<media_file> make_webm_file(const std::string& path,
                                           const media_file::contents& holds,
                                           base::event_loop& loop, media_file::done_callback done,
                                           std::string& error) {
  element_ptr pipeline = make_pipeline(description_of(holds), error);
  if (!pipeline) return nullptr;
  g_object_set(child(pipeline.get(), "file"), "location", path.c_str(), nullptr);
  return std::make_unique<webm_file>(std::move(pipeline), holds, loop, std::move(done));
}

}  // namespace zelta::core_service::files
