// SPDX-License-Identifier: Apache-2.0
#include "tiles.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "zelta-record/layout_file.h"

namespace zelta::lay {
namespace {

// The colours of 4:2:0 stand two pixels apart.
int even(double pixels) {
  return static_cast<int>(std::lround(pixels / 2)) * 2;
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

}  // namespace

std::vector<tile> grid_tiles(const std::vector<uint32_t>& users, int width, int height) {
  std::vector<tile> made;
  if (users.empty()) return made;
  const auto columns = static_cast<size_t>(std::ceil(std::sqrt(static_cast<double>(users.size()))));
  const size_t rows = (users.size() + columns - 1) / columns;
  const double w = static_cast<double>(width) / static_cast<double>(columns);
  const double h = static_cast<double>(height) / static_cast<double>(rows);
  for (size_t i = 0; i < users.size(); ++i) {
    const size_t row = i / columns;
    const size_t in_row = std::min(columns, users.size() - row * columns);
    const double left =
        (width - w * static_cast<double>(in_row)) / 2 + w * static_cast<double>(i % columns);
    const double top = h * static_cast<double>(row);
    made.push_back(between(users[i], left, top, left + w, top + h));
  }
  return made;
}

std::vector<tile> side_by_side_tiles(const std::vector<uint32_t>& users, int width, int height) {
  std::vector<tile> made;
  const double w =
      static_cast<double>(width) / static_cast<double>(std::max<size_t>(1, users.size()));
  for (size_t i = 0; i < users.size(); ++i) {
    const double left = w * static_cast<double>(i);
    made.push_back(between(users[i], left, 0, left + w, height));
  }
  return made;
}

std::vector<tile> speaker_tiles(const std::vector<uint32_t>& users, uint32_t speaker, int width,
                                int height) {
  if (users.size() < 2) return grid_tiles(users, width, height);
  const double strip = height * 0.8;
  std::vector<tile> made = {between(speaker, 0, 0, width, strip)};
  // As wide as the film is in shape, and narrower when there are many.
  const double w = std::min(width * 0.2, width / static_cast<double>(users.size() - 1));
  double left = (width - w * static_cast<double>(users.size() - 1)) / 2;
  for (const uint32_t uid : users) {
    if (uid == speaker) continue;
    made.push_back(between(uid, left, strip, left + w, height));
    left += w;
  }
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
    if (t.width < 2 || t.height < 2) continue;
    t.fill = r.renderMode == 0;
    t.alpha = r.alpha;
    made.tiles.push_back(t);
  }
  return made;
}

}  // namespace zelta::lay
