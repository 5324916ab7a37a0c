// SPDX-License-Identifier: Apache-2.0
// What libavformat, libavcodec and their kin allocate, each freed by its own function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace zelta::lay {

struct av_deleter {
  void operator()(AVFormatContext* input) const { avformat_close_input(&input); }
  void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
  void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
  void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
  void operator()(SwrContext* resampler) const { swr_free(&resampler); }
};

template <class Object>
using av_ptr = std::unique_ptr<Object, av_deleter>;

// Throws std::bad_alloc.
av_ptr<AVFrame> make_frame();
av_ptr<AVPacket> make_packet();

// A library's error number in words.
std::string av_words(int error);

// Throws std::runtime_error with `what` and the error's words when `result` is an error.
int av_check(int result, const std::string& what);

// A frame with memory for a picture of 4:2:0, 8 bits. Throws std::runtime_error.
av_ptr<AVFrame> make_picture(int width, int height);

// A pixel's place in a plane of a picture; of colours, in their own pixels.
inline uint8_t* pixel(const AVFrame& picture, int plane, int x, int y) {
  return picture.data[plane] + static_cast<ptrdiff_t>(y) * picture.linesize[plane] + x;
}

constexpr AVRational kMicroseconds = {1, 1000000};
constexpr int64_t kSecond = 1000000;  // microseconds
constexpr int kSampleRate = 48000;

}  // namespace zelta::lay
