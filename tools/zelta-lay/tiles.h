// SPDX-License-Identifier: Apache-2.0
// Where users stand on the film.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::lay {

struct tile {
  uint32_t uid = 0;
  int x = 0;  // pixels, even, as all four are
  int y = 0;
  int width = 0;
  int height = 0;
  bool fill = false;  // cropped; else with bars
  double alpha = 1;

  bool operator==(const tile& o) const {
    return uid == o.uid && x == o.x && y == o.y && width == o.width && height == o.height &&
           fill == o.fill && alpha == o.alpha;
  }
};

struct picture_layout {
  std::array<uint8_t, 3> background = {0, 0, 0};  // red, green, blue
  std::vector<tile> tiles;                        // later ones lie on top
};

// The colours of 4:2:0 stand two pixels apart.
int even(double pixels);

// A tile of less than two pixels is left out of all of these.
//
// As near to a square as the number allows; a last row that isn't full stands in the middle.
std::vector<tile> grid_tiles(const std::vector<uint32_t>& users, int width, int height);
// One beside the other, all of the film's height.
std::vector<tile> side_by_side_tiles(const std::vector<uint32_t>& users, int width, int height);
// The speaker large, the others in a row of a fifth of the height below; one alone has all.
std::vector<tile> speaker_tiles(const std::vector<uint32_t>& users, uint32_t speaker, int width,
                                int height);
// As zelta-record's layout files say (docs/zelta-record.md). None with `error`.
std::optional<picture_layout> file_layout(const std::string& path, int width, int height,
                                          std::string& error);

}  // namespace zelta::lay
