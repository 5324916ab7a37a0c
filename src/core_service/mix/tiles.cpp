// SPDX-License-Identifier: Apache-2.0
#include "core_service/mix/tiles.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace zelta::core_service::mix {
namespace {

// A region twice the canvas on every side is a way to show a part of a picture; what is larger is
// a mistake, and would cost memory.
constexpr double kFarthest = 2;

bool within(double value, double lowest, double highest) {
  return std::isfinite(value) && value >= lowest && value <= highest;
}

int pixels(double share, int whole) {
  return static_cast<int>(std::lround(share * whole));
}

}  // namespace

std::vector<tile> grid_tiles(const std::vector<uint32_t>& uids, int width, int height) {
  std::vector<tile> tiles;
  const int count = static_cast<int>(uids.size());
  if (count == 0) return tiles;
  const int columns = static_cast<int>(std::ceil(std::sqrt(count)));
  const int rows = (count + columns - 1) / columns;
  for (int i = 0; i < count; ++i) {
    const int row = i / columns;
    const int in_row = row + 1 < rows ? columns : count - row * columns;
    const int indent = (columns - in_row) * width / columns / 2;
    tile t;
    t.uid = uids[static_cast<size_t>(i)];
    t.x = indent + (i % columns) * width / columns;
    t.y = row * height / rows;
    t.width = width / columns;
    t.height = height / rows;
    tiles.push_back(t);
  }
  return tiles;
}

std::vector<tile> layout_tiles(const recording::mixing_layout& layout, int width, int height,
                               std::vector<std::string>& warnings) {
  std::vector<tile> tiles;
  for (const auto& region : layout.regions) {
    tile t;
    t.uid = region.uid;
    const bool fits = within(region.x, -kFarthest, kFarthest) &&
                      within(region.y, -kFarthest, kFarthest) &&
                      within(region.width, 0, kFarthest) && within(region.height, 0, kFarthest);
    if (fits) {
      t.x = pixels(region.x, width);
      t.y = pixels(region.y, height);
      t.width = pixels(region.width, width);
      t.height = pixels(region.height, height);
    }
    if (t.width < 1 || t.height < 1) {
      warnings.push_back("layout: the region of user " + std::to_string(region.uid) +
                         " is left out: x, y, width and height should be shares of the canvas, 0 "
                         "to 1, and at least a pixel");
      continue;
    }
    t.alpha = std::isfinite(region.alpha) ? std::clamp(region.alpha, 0.0, 1.0) : 1;
    t.crop = region.renderMode == 0;
    tiles.push_back(t);
  }
  return tiles;
}

std::optional<uint32_t> parse_colour(const std::string& text) {
  if (text.size() != 7 || text[0] != '#') return std::nullopt;
  uint32_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data() + 1, end, value, 16);
  if (failed != std::errc() || stopped != end) return std::nullopt;
  return value;
}

}  // namespace zelta::core_service::mix
