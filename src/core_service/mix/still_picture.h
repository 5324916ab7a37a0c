// SPDX-License-Identifier: Apache-2.0
// Pictures that don't move: an image from a file, a plain colour.
#pragma once

#include <cstdint>
#include <string>

#include "core_service/media/gst.h"

namespace zelta::core_service::mix {

// What pictures of the height are taken for when nothing says otherwise. The mix and its canvas
// have the same, so that pictures that have it too need no conversion of their colours.
inline const char* colorimetry_of(int height) {
  return height >= 720 ? "bt709" : "bt601";
}

// Reads a PNG or JPEG image as an I420 picture of its own size. Null, with `error`, when the file
// is missing, no image, or too large. Takes as long as decoding does, two seconds at most.
media::sample_ptr load_picture(const std::string& path, std::string& error);

// A picture of one colour, 0xrrggbb.
media::sample_ptr plain_picture(uint32_t colour, int width, int height);

// `image` scaled to fit into the size, with black borders where its shape is another.
media::sample_ptr scaled_picture(GstSample* image, int width, int height);

}  // namespace zelta::core_service::mix
