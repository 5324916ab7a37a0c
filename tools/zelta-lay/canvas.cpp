// SPDX-License-Identifier: Apache-2.0
#include "canvas.h"

#include <algorithm>
#include <cmath>
#include <new>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

namespace zelta::lay {
namespace {

constexpr int kPlanes = 3;
// Of what is empty: so dark that it doesn't shine, and lighter than the background.
constexpr uint8_t kEmpty[kPlanes] = {40, 128, 128};
constexpr uint8_t kBar[kPlanes] = {16, 128, 128};

struct box {
  int x, y, width, height;
};

int halved(int plane, int pixels) {
  return plane == 0 ? pixels : pixels / 2;
}

void fill(AVFrame& picture, const box& at, const uint8_t (&colour)[kPlanes]) {
  for (int plane = 0; plane < kPlanes; ++plane) {
    for (int row = 0; row < halved(plane, at.height); ++row) {
      std::fill_n(pixel(picture, plane, halved(plane, at.x), halved(plane, at.y) + row),
                  halved(plane, at.width), colour[plane]);
    }
  }
}

// Where the whole of a picture stands in a tile, or what of a picture fills it: the largest box of
// the shape `width` to `height` inside `in`.
box inside(const box& in, double width, double height) {
  const double scale = std::min(in.width / width, in.height / height);
  const int w = std::clamp(even(width * scale), 2, in.width);
  const int h = std::clamp(even(height * scale), 2, in.height);
  return {in.x + (in.width - w) / 4 * 2, in.y + (in.height - h) / 4 * 2, w, h};
}

double shape_of(const AVFrame& from) {
  const AVRational pixel = from.sample_aspect_ratio;
  const double aspect = pixel.num > 0 && pixel.den > 0 ? av_q2d(pixel) : 1;
  return from.width * aspect / from.height;
}

// A view of a part of a picture; `left` and `top` are multiples of what its colours share.
void cropped(const AVFrame& from, const box& part, const uint8_t* (&data)[4]) {
  const AVPixFmtDescriptor* const about =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(from.format));
  int bytes[4] = {0, 0, 0, 0};
  av_image_fill_max_pixsteps(bytes, nullptr, about);
  for (int plane = 0; plane < 4; ++plane) {
    const bool colour = plane == 1 || plane == 2;
    const int x = colour ? part.x >> about->log2_chroma_w : part.x;
    const int y = colour ? part.y >> about->log2_chroma_h : part.y;
    data[plane] = from.data[plane] == nullptr ? nullptr : pixel(from, plane, x * bytes[plane], y);
  }
}

// What pictures without a note of their colours are taken for, as films are.
bool is_bt601(int colorspace) {
  return colorspace == AVCOL_SPC_UNSPECIFIED || colorspace == AVCOL_SPC_SMPTE170M ||
         colorspace == AVCOL_SPC_BT470BG;
}

bool is_full_range(const AVFrame& from) {
  return from.color_range == AVCOL_RANGE_JPEG || from.format == AV_PIX_FMT_YUVJ420P ||
         from.format == AV_PIX_FMT_YUVJ422P || from.format == AV_PIX_FMT_YUVJ444P;
}

bool is_as_film(const AVFrame& from) {
  return from.format == AV_PIX_FMT_YUV420P && is_bt601(from.colorspace) && !is_full_range(from);
}

// None for a picture of a kind that can't be scaled.
av_ptr<SwsContext> scaler_of(const AVFrame& from, int width, int height, const AVFrame& to) {
  av_ptr<SwsContext> made(sws_alloc_context());
  if (made == nullptr) throw std::bad_alloc();
  const int range = is_full_range(from) ? 1 : 0;
  const struct {
    const char* option;
    int64_t value;
  } rows[] = {{"srcw", width},           {"srch", height},   {"src_format", from.format},
              {"src_range", range},      {"dstw", to.width}, {"dsth", to.height},
              {"dst_format", to.format}, {"dst_range", 0},   {"sws_flags", SWS_BILINEAR}};
  for (const auto& row : rows) {
    av_check(av_opt_set_int(made.get(), row.option, row.value, 0), row.option);
  }
  if (sws_init_context(made.get(), nullptr, nullptr) < 0) return nullptr;
  const int* const film = sws_getCoefficients(SWS_CS_ITU601);
  const int* const own = is_bt601(from.colorspace) ? film : sws_getCoefficients(from.colorspace);
  constexpr int kAsIs = 1 << 16;
  // Of what has no such colours nothing is taken, and nothing is wrong.
  (void)sws_setColorspaceDetails(made.get(), own, range, film, 0, 0, kAsIs, kAsIs);
  return made;
}

void blend(const AVFrame& from, AVFrame& picture, const box& at, double alpha) {
  const int share = static_cast<int>(std::lround(alpha * 256));
  for (int plane = 0; plane < kPlanes; ++plane) {
    const int width = halved(plane, at.width);
    for (int row = 0; row < halved(plane, at.height); ++row) {
      const uint8_t* const in = pixel(from, plane, 0, row);
      uint8_t* const out = pixel(picture, plane, halved(plane, at.x), halved(plane, at.y) + row);
      if (share >= 256) {
        std::copy_n(in, width, out);
        continue;
      }
      for (int i = 0; i < width; ++i) {
        out[i] = static_cast<uint8_t>((in[i] * share + out[i] * (256 - share)) >> 8);
      }
    }
  }
}

}  // namespace

canvas::canvas(int width, int height) : picture_(make_picture(width, height)) {
  picture_->color_range = AVCOL_RANGE_MPEG;
}

void canvas::begin() {
  av_check(av_frame_make_writable(picture_.get()), "memory for a picture");
}

void canvas::clear(const std::array<uint8_t, 3>& rgb) {
  const double r = rgb[0];
  const double g = rgb[1];
  const double b = rgb[2];
  // BT.601, limited range, as films are.
  const uint8_t colour[kPlanes] = {
      static_cast<uint8_t>(std::lround(16 + 0.257 * r + 0.504 * g + 0.098 * b)),
      static_cast<uint8_t>(std::lround(128 - 0.148 * r - 0.291 * g + 0.439 * b)),
      static_cast<uint8_t>(std::lround(128 + 0.439 * r - 0.368 * g - 0.071 * b))};
  fill(*picture_, {0, 0, picture_->width, picture_->height}, colour);
}

void canvas::draw_empty(const tile& to) {
  if (to.alpha >= 1) fill(*picture_, {to.x, to.y, to.width, to.height}, kEmpty);
}

const AVFrame* canvas::scale(const AVFrame& from, const tile& to, scaled& by) {
  box part = {0, 0, from.width, from.height};
  if (to.fill) {
    // The tile's shape, in pixels of a picture whose pixels needn't be square.
    const double stretch = shape_of(from) * from.height / from.width;
    part = inside(part, to.width / stretch, to.height);
  }
  const std::array<int, 5> key = {part.width, part.height, from.format,
                                  static_cast<int>(from.colorspace),
                                  static_cast<int>(from.color_range)};
  if (by.scaler == nullptr || by.from != key) {
    by.from = key;
    by.scaler = scaler_of(from, part.width, part.height, *by.picture);
  }
  if (by.scaler == nullptr) return nullptr;
  const uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
  cropped(from, part, data);
  sws_scale(by.scaler.get(), data, from.linesize, 0, part.height, by.picture->data,
            by.picture->linesize);
  return by.picture.get();
}

bool canvas::draw(const AVFrame& from, const tile& to, size_t slot) {
  const box all = {to.x, to.y, to.width, to.height};
  const box at = to.fill ? all : inside(all, shape_of(from), 1);
  const AVFrame* drawn = &from;
  if (!is_as_film(from) || from.width != at.width || from.height != at.height) {
    scaled& by = scaled_[slot];
    if (by.picture == nullptr || by.picture->width != at.width || by.picture->height != at.height) {
      by.picture = make_picture(at.width, at.height);
      by.scaler.reset();
    }
    drawn = scale(from, to, by);
  }
  if (drawn == nullptr) return false;
  if (to.alpha >= 1 && (at.width != all.width || at.height != all.height)) {
    fill(*picture_, all, kBar);
  }
  blend(*drawn, *picture_, at, to.alpha);
  return true;
}

}  // namespace zelta::lay
