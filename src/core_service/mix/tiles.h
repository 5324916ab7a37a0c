// SPDX-License-Identifier: Apache-2.0
// Where users stand on the mixed picture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "protocol/mixing_layout.h"

namespace zelta::core_service::mix {

// In pixels of the canvas; may reach over its edges.
struct tile {
  uint32_t uid = 0;
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  double alpha = 1;   // 0 to 1
  bool crop = false;  // fills the tile and loses edges, or fits in and leaves some free
};

// All users in a grid as square as possible, row by row, the last row centred.
std::vector<tile> grid_tiles(const std::vector<uint32_t>& uids, int width, int height);

// The layout's regions, later ones on top. One that can't be shown is left out, with a warning.
std::vector<tile> layout_tiles(const recording::mixing_layout& layout, int width, int height,
                               std::vector<std::string>& warnings);

// "#rrggbb" as 0xrrggbb; none: `text` is no colour.
std::optional<uint32_t> parse_colour(const std::string& text);

}  // namespace zelta::core_service::mix
