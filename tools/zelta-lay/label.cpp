// SPDX-License-Identifier: Apache-2.0
#include "label.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include <pango/pangocairo.h>

namespace zelta::lay {
namespace {

constexpr int kBlack = 16;
constexpr int kWhite = 235;
constexpr uint8_t kGrey = 128;

struct unref {
  void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
  void operator()(cairo_t* c) const { cairo_destroy(c); }
  void operator()(PangoLayout* l) const { g_object_unref(l); }
  void operator()(PangoFontDescription* d) const { pango_font_description_free(d); }
  void operator()(char* text) const { g_free(text); }
};
template <class Object>
using owned = std::unique_ptr<Object, unref>;

owned<cairo_surface_t> surface(int width, int height) {
  owned<cairo_surface_t> made(cairo_image_surface_create(CAIRO_FORMAT_A8, width, height));
  if (cairo_surface_status(made.get()) != CAIRO_STATUS_SUCCESS) {
    throw std::runtime_error("no memory for text of " + std::to_string(width) + "x" +
                             std::to_string(height));
  }
  return made;
}

owned<PangoLayout> text_layout(cairo_t* on, const std::string& text, int font_pixels,
                               int most_width) {
  owned<PangoLayout> made(pango_cairo_create_layout(on));
  const owned<PangoFontDescription> font(pango_font_description_from_string("Sans"));
  pango_font_description_set_absolute_size(font.get(), font_pixels * PANGO_SCALE);
  pango_layout_set_font_description(made.get(), font.get());
  const owned<char> valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
  pango_layout_set_text(made.get(), valid.get(), -1);
  pango_layout_set_single_paragraph_mode(made.get(), TRUE);
  pango_layout_set_ellipsize(made.get(), PANGO_ELLIPSIZE_END);
  int width = 0;
  pango_layout_get_pixel_size(made.get(), &width, nullptr);
  if (width > most_width) pango_layout_set_width(made.get(), most_width * PANGO_SCALE);
  return made;
}

}  // namespace

label draw_label(const std::string& text, int font_pixels, int most_width) {
  const int margin = std::max(2, font_pixels / 4);
  const int room = most_width - 2 * margin;
  // An ellipsis is about as wide.
  if (room < font_pixels) return {};
  const owned<cairo_surface_t> nothing = surface(1, 1);
  const owned<cairo_t> measure(cairo_create(nothing.get()));
  int width = 0;
  int height = 0;
  pango_layout_get_pixel_size(text_layout(measure.get(), text, font_pixels, room).get(), &width,
                              &height);
  label made;
  made.width = std::min((width + 2 * margin + 1) / 2, most_width / 2) * 2;
  made.height = (height + margin + 1) / 2 * 2;
  const owned<cairo_surface_t> drawn = surface(made.width, made.height);
  const owned<cairo_t> on(cairo_create(drawn.get()));
  cairo_move_to(on.get(), margin, margin / 2.0);
  pango_cairo_show_layout(on.get(), text_layout(on.get(), text, font_pixels, room).get());
  cairo_surface_flush(drawn.get());
  const unsigned char* const data = cairo_image_surface_get_data(drawn.get());
  const auto stride = static_cast<size_t>(cairo_image_surface_get_stride(drawn.get()));
  for (size_t row = 0; row < static_cast<size_t>(made.height); ++row) {
    made.cover.insert(made.cover.end(), data + row * stride, data + row * stride + made.width);
  }
  return made;
}

void put_label(const label& text, int x, int y, AVFrame& picture) {
  const int width = std::min(text.width, picture.width - x);
  const int height = std::min(text.height, picture.height - y);
  for (int row = 0; row < height; ++row) {
    uint8_t* const to = pixel(picture, 0, x, y + row);
    const uint8_t* const cover = text.cover.data() + static_cast<ptrdiff_t>(row) * text.width;
    for (int i = 0; i < width; ++i) {
      to[i] = static_cast<uint8_t>(kBlack + cover[i] * (kWhite - kBlack) / 255);
    }
  }
  for (int plane = 1; plane < 3; ++plane) {
    for (int row = 0; row < height / 2; ++row) {
      uint8_t* const to = pixel(picture, plane, x / 2, y / 2 + row);
      std::fill_n(to, std::max(0, width / 2), kGrey);
    }
  }
}

}  // namespace zelta::lay
