// SPDX-License-Identifier: Apache-2.0
#include "limiter.h"

#include <algorithm>
#include <new>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

namespace zelta::lay {
namespace {

// 1 dB below full scale: what AAC makes of it overshoots a little. It looks 5 ms ahead, and doesn't
// turn up what is quiet.
constexpr const char* kChain =
    "alimiter=limit=0.89:attack=5:release=50:level=disabled:latency=enabled,"
    "aformat=sample_fmts=fltp:channel_layouts=stereo";

}  // namespace

limiter::limiter(int frame_size) : graph_(avfilter_graph_alloc()) {
  if (graph_ == nullptr) throw std::bad_alloc();
  graph_->nb_threads = 1;
  av_check(avfilter_graph_create_filter(
               &in_, avfilter_get_by_name("abuffer"), "in",
               "sample_rate=48000:sample_fmt=flt:channel_layout=stereo:time_base=1/48000", nullptr,
               graph_.get()),
           "abuffer");
  av_check(avfilter_graph_create_filter(&out_, avfilter_get_by_name("abuffersink"), "out", nullptr,
                                        nullptr, graph_.get()),
           "abuffersink");
  AVFilterInOut* inputs = nullptr;
  AVFilterInOut* outputs = nullptr;
  int result = avfilter_graph_parse2(graph_.get(), kChain, &inputs, &outputs);
  if (result >= 0) result = avfilter_link(in_, 0, inputs->filter_ctx, 0);
  if (result >= 0) result = avfilter_link(outputs->filter_ctx, 0, out_, 0);
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  av_check(result, kChain);
  av_check(avfilter_graph_config(graph_.get(), nullptr), kChain);
  av_buffersink_set_frame_size(out_, static_cast<unsigned>(frame_size));
}

void limiter::push(const float* pairs, int count, int64_t first) {
  const av_ptr<AVFrame> frame = make_frame();
  frame->format = AV_SAMPLE_FMT_FLT;
  frame->sample_rate = kSampleRate;
  frame->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
  frame->nb_samples = count;
  frame->pts = first;
  av_check(av_frame_get_buffer(frame.get(), 0), "memory for sound");
  std::copy_n(pairs, 2 * count, reinterpret_cast<float*>(frame->data[0]));
  av_check(av_buffersrc_add_frame(in_, frame.get()), "alimiter");
}

void limiter::finish() {
  av_check(av_buffersrc_add_frame(in_, nullptr), "alimiter");
}

bool limiter::pull(AVFrame& frame) {
  av_frame_unref(&frame);
  const int result = av_buffersink_get_frame(out_, &frame);
  if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
  av_check(result, "alimiter");
  return true;
}

}  // namespace zelta::lay
