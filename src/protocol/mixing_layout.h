// SPDX-License-Identifier: Apache-2.0
// The mixing layout as the bytes of a video_mixing_layout_packet.
//
// A version byte, then in base/packer.h's encoding: canvas width and height (32 bits each),
// background colour (string), the regions (a 32-bit count, then per region uid, x, y, width,
// height, alpha as 64-bit IEEE doubles, and render mode), application data (string). A null text is
// written as an empty one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "IZeltaRecordingEngine.h"

namespace zelta::recording {

// Fills `bytes`. False, with a line in the log of `logdir`, when the layout can't be encoded: a
// positive count with a null array or text, or a negative length.
bool encodeMixingLayout(const linuxsdk::VideoMixingLayout& layout,
                        std::vector<unsigned char>& bytes, const std::string& logdir);

// A decoded layout, which owns its parts. Regions in the order of the application's array.
struct mixing_layout {
  int32_t canvas_width = 0;
  int32_t canvas_height = 0;
  std::string background_color;
  std::vector<linuxsdk::VideoMixingLayout::Region> regions;
  std::string app_data;
};

// The recorder's side. False, with `layout` untouched, when `bytes` are no layout of this version.
[[nodiscard]] bool decodeMixingLayout(const std::vector<unsigned char>& bytes,
                                      mixing_layout& layout);

}  // namespace zelta::recording
