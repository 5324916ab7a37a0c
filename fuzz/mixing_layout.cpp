// SPDX-License-Identifier: Apache-2.0
// A layout's bytes: what decodes must encode to the same again.
#include "protocol/mixing_layout.h"

#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  std::vector<std::string> all;
  for (const int regions : {0, 1, 17}) {
    const std::vector<uint8_t> bytes = layout_of(regions);
    all.emplace_back(bytes.begin(), bytes.end());
  }
  return all;
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  recording::mixing_layout layout;
  if (!recording::decodeMixingLayout({data, data + size}, layout)) return 0;
  // A text with a zero in it can't be given by an application, so it doesn't come back.
  if (layout.background_color.find('\0') != std::string::npos) return 0;
  linuxsdk::VideoMixingLayout again;
  again.canvasWidth = layout.canvas_width;
  again.canvasHeight = layout.canvas_height;
  again.backgroundColor = layout.background_color.c_str();
  again.regionCount = static_cast<uint32_t>(layout.regions.size());
  again.regions = layout.regions.data();
  again.appData = layout.app_data.data();
  again.appDataLength = static_cast<int>(layout.app_data.size());
  std::vector<uint8_t> bytes;
  fuzz::require(recording::encodeMixingLayout(again, bytes, ""), "a layout that doesn't encode");
  fuzz::require(bytes == std::vector<uint8_t>(data, data + size),
                "a layout that encodes to other bytes");
  return 0;
}
