// SPDX-License-Identifier: Apache-2.0
// Which sizes of pictures are taken: a decoder asks for memory by what a stranger's header says.
#pragma once

#include <cstdint>

namespace zelta::core_service::media {

constexpr int kMostPixelsAcross = 16'384;

inline bool is_picture_size(int64_t width, int64_t height) {
  return width > 0 && height > 0 && width <= kMostPixelsAcross && height <= kMostPixelsAcross;
}

}  // namespace zelta::core_service::media
