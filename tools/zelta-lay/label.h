// SPDX-License-Identifier: Apache-2.0
// A line of text as a picture: names and the clock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "av.h"

namespace zelta::lay {

struct label {
  int width = 0;  // pixels, even, with a margin around the text
  int height = 0;
  std::vector<uint8_t> cover;  // 0 black to 255 white, row by row
};

// `text` in UTF-8, what is none of it replaced; cut with an ellipsis at `most_width`, and nothing
// where not even that has room. Throws std::runtime_error.
label draw_label(const std::string& text, int font_pixels, int most_width);

// White on black; what stands outside of the picture is cut off. `x` and `y` are even.
void put_label(const label& text, int x, int y, AVFrame& picture);

}  // namespace zelta::lay
