// SPDX-License-Identifier: Apache-2.0
#include "encoder.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

extern "C" {
#include <libavutil/cpu.h>
#include <libavutil/opt.h>
}

namespace zelta::lay {
namespace {

constexpr int kSoundBitrate = 128000;
constexpr int kKeyFrameSeconds = 2;
constexpr int kMostThreads = 16;

av_ptr<AVCodecContext> make(const char* name) {
  const AVCodec* const codec = avcodec_find_encoder_by_name(name);
  if (codec == nullptr) throw std::runtime_error(std::string("libavcodec has no ") + name);
  av_ptr<AVCodecContext> made(avcodec_alloc_context3(codec));
  if (made == nullptr) throw std::bad_alloc();
  return made;
}

}  // namespace

av_ptr<AVCodecContext> open_picture_encoder(int width, int height, int fps, bool global_header) {
  av_ptr<AVCodecContext> made = make("libx264");
  made->width = width;
  made->height = height;
  made->pix_fmt = AV_PIX_FMT_YUV420P;
  made->color_range = AVCOL_RANGE_MPEG;
  made->colorspace = AVCOL_SPC_SMPTE170M;
  made->color_primaries = AVCOL_PRI_SMPTE170M;
  made->color_trc = AVCOL_TRC_SMPTE170M;
  made->time_base = {1, fps};
  made->framerate = {fps, 1};
  made->gop_size = kKeyFrameSeconds * fps;
  // More than it has by itself, as pictures are composed meanwhile, and come in spurts.
  made->thread_count = std::min(2 * av_cpu_count(), kMostThreads);
  if (global_header) made->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  // What two processors do at five times real time, with pictures full of noise, too: the fastest
  // preset, with those of its economies taken back that cost more bytes than they save time.
  // docs/decisions/films-by-libav.md has the figures.
  av_opt_set(made->priv_data, "preset", "ultrafast", 0);
  av_opt_set(made->priv_data, "x264-params", "cabac=1:no-deblock=0:aq-mode=1", 0);
  av_opt_set(made->priv_data, "crf", "23", 0);
  av_check(avcodec_open2(made.get(), made->codec, nullptr), "libx264");
  return made;
}

av_ptr<AVCodecContext> open_sound_encoder(bool global_header) {
  av_ptr<AVCodecContext> made = make("aac");
  made->sample_fmt = AV_SAMPLE_FMT_FLTP;
  made->sample_rate = kSampleRate;
  made->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
  made->bit_rate = kSoundBitrate;
  made->time_base = {1, kSampleRate};
  if (global_header) made->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  // At this bitrate the library's documentation has it for the better one, too; it takes half.
  av_opt_set(made->priv_data, "aac_coder", "fast", 0);
  av_check(avcodec_open2(made.get(), made->codec, nullptr), "aac");
  return made;
}

encoder::encoder(av_ptr<AVCodecContext> opened, film_file& into)
    : codec_(std::move(opened)), into_(into) {
  const av_ptr<AVCodecParameters> parameters(avcodec_parameters_alloc());
  if (parameters == nullptr) throw std::bad_alloc();
  av_check(avcodec_parameters_from_context(parameters.get(), codec_.get()), codec_->codec->name);
  stream_ = into.add_stream(*parameters, codec_->time_base);
}

void encoder::encode(const AVFrame* frame) {
  av_check(avcodec_send_frame(codec_.get(), frame), codec_->codec->name);
  while (true) {
    const int result = avcodec_receive_packet(codec_.get(), packet_.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
    av_check(result, codec_->codec->name);
    if (packet_->duration == 0 && codec_->codec_type == AVMEDIA_TYPE_VIDEO) packet_->duration = 1;
    into_.write(*packet_, stream_, codec_->time_base);
  }
}

}  // namespace zelta::lay
