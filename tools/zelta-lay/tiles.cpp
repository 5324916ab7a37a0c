// SPDX-License-Identifier: Apache-2.0
#include "tiles.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "zelta-record/layout_file.h"

namespace zelta::lay {
namespace {

bool is_seen(const tile& t) {
  return t.width >= 2 && t.height >= 2;
}

tile between(uint32_t uid, double left, double top, double right, double bottom) {
  tile made;
  made.uid = uid;
  made.x = even(left);
  made.y = even(top);
  made.width = even(right) - made.x;
  made.height = even(bottom) - made.y;
  return made;
}

// In the middle. Edges are reckoned once for the two tiles that share them.
void add_row(std::vector<tile>& to, const std::vector<uint32_t>& users, int width,
             double tile_width, double top, double bottom) {
  const double left = (width - tile_width * static_cast<double>(users.size())) / 2;
  for (size_t i = 0; i < users.size(); ++i) {
    const tile t = between(users[i], left + tile_width * static_cast<double>(i), top,
                           left + tile_width * static_cast<double>(i + 1), bottom);
    if (is_seen(t)) to.push_back(t);
  }
}

}  // namespace

int even(double pixels) {
  return static_cast<int>(std::lround(pixels / 2)) * 2;
}

std::vector<tile> grid_tiles(const std::vector<uint32_t>& users, int width, int height) {
  std::vector<tile> made;
  if (users.empty()) return made;
  const auto columns = static_cast<size_t>(std::ceil(std::sqrt(static_cast<double>(users.size()))));
  const size_t rows = (users.size() + columns - 1) / columns;
  const double w = static_cast<double>(width) / static_cast<double>(columns);
  const double h = static_cast<double>(height) / static_cast<double>(rows);
  for (size_t row = 0; row < rows; ++row) {
    const size_t first = row * columns;
    const std::vector<uint32_t> those(
        users.begin() + static_cast<ptrdiff_t>(first),
        users.begin() + static_cast<ptrdiff_t>(std::min(users.size(), first + columns)));
    add_row(made, those, width, w, h * static_cast<double>(row), h * static_cast<double>(row + 1));
  }
  return made;
}

std::vector<tile> side_by_side_tiles(const std::vector<uint32_t>& users, int width, int height) {
  std::vector<tile> made;
  if (users.empty()) return made;
  add_row(made, users, width, static_cast<double>(width) / static_cast<double>(users.size()), 0,
          height);
  return made;
}

std::vector<tile> speaker_tiles(const std::vector<uint32_t>& users, uint32_t speaker, int width,
                                int height) {
  if (users.size() < 2) return grid_tiles(users, width, height);
  const double strip = height * 0.8;
  std::vector<tile> made = {between(speaker, 0, 0, width, strip)};
  std::vector<uint32_t> others = users;
  others.erase(std::remove(others.begin(), others.end(), speaker), others.end());
  // As wide as the film is in shape, and narrower when there are many.
  const double w = std::min(width * 0.2, width / static_cast<double>(others.size()));
  add_row(made, others, width, w, strip, height);
  return made;
}

std::optional<picture_layout> file_layout(const std::string& path, int width, int height,
                                          std::string& error) {
  const auto file = record::layout_file::read(path, error);
  if (!file) return std::nullopt;
  const recording::VideoMixingLayout read = file->layout();
  picture_layout made;
  if (read.backgroundColor != nullptr) {
    const auto colour = std::strtoul(read.backgroundColor + 1, nullptr, 16);
    made.background = {static_cast<uint8_t>(colour >> 16), static_cast<uint8_t>(colour >> 8),
                       static_cast<uint8_t>(colour)};
  }
  for (uint32_t i = 0; i < read.regionCount; ++i) {
    const auto& r = read.regions[i];
    tile t = between(r.uid, r.x * width, r.y * height, std::min(1.0, r.x + r.width) * width,
                     std::min(1.0, r.y + r.height) * height);
    if (!is_seen(t)) continue;
    t.fill = r.renderMode == 0;
    t.alpha = r.alpha;
    made.tiles.push_back(t);
  }
  return made;
}

}  // namespace zelta::lay
