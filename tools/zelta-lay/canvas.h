// SPDX-License-Identifier: Apache-2.0
// The film's picture, on which tiles are drawn. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "av.h"
#include "tiles.h"

namespace zelta::lay {

class canvas {
 public:
  // Even numbers of pixels. Throws std::runtime_error.
  canvas(int width, int height);

  // Before drawing: what an encoder still holds is left to it.
  void begin();
  void clear(const std::array<uint8_t, 3>& rgb);
  // The tile without a picture.
  void draw_empty(const tile& to);
  // Scaled, whole with bars or cropped, as the tile says. `slot` tells tiles apart, whose scalers
  // are kept. False, and nothing is drawn, for a picture of a kind that can't be scaled.
  bool draw(const AVFrame& from, const tile& to, size_t slot);

  AVFrame& picture() { return *picture_; }

 private:
  // A scaler, and what it was made for.
  struct scaled {
    av_ptr<SwsContext> scaler;
    std::array<int, 5> from = {};
    av_ptr<AVFrame> picture;
  };
  const AVFrame* scale(const AVFrame& from, const tile& to, scaled& by);

  av_ptr<AVFrame> picture_;
  std::map<size_t, scaled> scaled_;
};

}  // namespace zelta::lay
