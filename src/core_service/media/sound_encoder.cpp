// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/sound_encoder.h"

#include <utility>

#include <gst/app/gstappsrc.h>

namespace zelta::core_service::media {
namespace {

// avenc_aac gives its first frame the time of the first samples, though it holds the frame before
// them: uncorrected, all sound would be late by this.
constexpr media_time kAacDelay(1024LL * 1'000'000'000 / kSampleRate);

std::string description_of(const sound_encoder::settings& wanted) {
  const std::string source =
      "appsrc name=in format=time max-bytes=0 caps=audio/x-raw,format=S16LE,layout=interleaved,"
      "rate=" +
      std::to_string(kSampleRate) + ",channels=" + std::to_string(wanted.channels) +
      " ! audioconvert ! ";
  const std::string bits = std::to_string(wanted.bits_per_second);
  const std::string sink = " ! appsink name=out sync=false async=false";
  switch (wanted.codec) {
    case sound_codec::kAac:
      return source + "avenc_aac bitrate=" + bits + " ! aacparse ! audio/mpeg,stream-format=raw" +
             sink;
    case sound_codec::kAdts:
      return source + "avenc_aac bitrate=" + bits +
             " ! aacparse ! audio/mpeg,stream-format=adts,framed=true" + sink;
    case sound_codec::kOpus:
      return source + "opusenc bitrate=" + bits + " ! opusparse" + sink;
  }
  return "";
}

}  // namespace

std::shared_ptr<sound_encoder> sound_encoder::make(const settings& wanted, events told,
                                                   std::string& error) {
  element_ptr pipeline = make_pipeline(description_of(wanted), error);
  if (!pipeline) return nullptr;
  return std::shared_ptr<sound_encoder>(
      new sound_encoder(std::move(pipeline), wanted, std::move(told)));
}

sound_encoder::sound_encoder(element_ptr pipeline, const settings& wanted, events told)
    : channels_(static_cast<size_t>(wanted.channels)),
      pipeline_(std::move(pipeline)),
      source_(child(pipeline_.get(), "in")) {
  const media_time delay = wanted.codec == sound_codec::kOpus ? media_time::zero() : kAacDelay;
  on_samples(
      child(pipeline_.get(), "out"),
      [pipeline = pipeline_.get(), delay, encoded = std::move(told.encoded)](GstSample* from) {
        media_sample sample;
        if (!take_sample(from, pipeline, sample)) return;
        // The samples' own times are the timeline's, whatever the pipeline's base time is.
        sample.time = media_time(static_cast<int64_t>(times_of(sample.buffer.get()).pts)) - delay;
        sample.decode_time = sample.time;
        sample.key = true;
        encoded(std::move(sample));
      },
      std::move(told.ended));
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

sound_encoder::~sound_encoder() {
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

void sound_encoder::on_sound(media_time time, const int16_t* samples, size_t frames) {
  const size_t bytes = frames * channels_ * sizeof(int16_t);
  GstBuffer* const buffer = gst_buffer_new_memdup(samples, bytes);
  set_times(buffer, {static_cast<GstClockTime>(time.count()), GST_CLOCK_TIME_NONE,
                     static_cast<GstClockTime>(frames) * GST_SECOND / kSampleRate});
  // A refusal means that the encoder failed; its file then ends for lack of sound.
  gst_app_src_push_buffer(GST_APP_SRC(source_), buffer);
}

void sound_encoder::on_sound_end() {
  gst_app_src_end_of_stream(GST_APP_SRC(source_));
}

}  // namespace zelta::core_service::media
