// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/plain_pictures.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "core_service/media/gst.h"
#include "core_service/media/picture_memory.h"

namespace zelta::core_service::media {
namespace {

// 8K, in either direction.
constexpr int64_t kMostPixels = int64_t{8192} * 4352;
constexpr const char* kMostSide = "8192";

// By name, in the order in which a picture meets them.
constexpr std::array<const char*, 3> kElements{"plain_format", "plain_frames", "plain_pixels"};

bool fits(int64_t width, int64_t height) {
  return width * height <= kMostPixels;
}

}  // namespace

// The fields of a picture were captured one after the other, so weaving them would leave combs
// wherever something moves. One picture is made of the first field of each frame: as many come out
// as came in, at their times. The deinterlacer reads what each picture says of its fields, so an
// order that changes on the way is followed. It knows few formats, so the format comes first.
std::string plain_pictures() {
  const std::string side = std::string("(int)[1,") + kMostSide + "]";
  return std::string("videoconvert name=") + kElements[0] +
         " ! video/x-raw,format=I420 ! deinterlace mode=auto fields=top method=linear name=" +
         kElements[1] + " ! videoscale add-borders=false name=" + kElements[2] +
         " ! video/x-raw,interlace-mode=progressive,pixel-aspect-ratio=1/1,width=" + side +
         ",height=" + side;
}

void offer_picture_memory_along(GstElement* branch) {
  for (const char* const name : kElements) {
    const pad_ptr in(gst_element_get_static_pad(child(branch, name), "sink"));
    offer_picture_memory(in.get());
  }
}

std::optional<bool> is_decodable(const GstCaps* coded) {
  const GstStructure* const fields = gst_caps_get_structure(coded, 0);
  int width = 0;
  int height = 0;
  if (gst_structure_get_int(fields, "width", &width) == FALSE ||
      gst_structure_get_int(fields, "height", &height) == FALSE) {
    return std::nullopt;
  }
  return fits(width, height);
}

std::optional<bool> is_decodable(const uint8_t* coded, size_t bytes, bool vp8) {
  const auto at = [coded](size_t i) { return int64_t{coded[i]}; };
  if (vp8) {
    if (bytes < 10 || (coded[0] & 1U) != 0) return std::nullopt;
    return fits((at(7) & 0x3F) << 8 | at(6), (at(9) & 0x3F) << 8 | at(8));
  }
  if (bytes < 14 || std::memcmp(coded, "\x80theora", 7) != 0) return std::nullopt;
  return fits((at(10) << 8 | at(11)) * 16, (at(12) << 8 | at(13)) * 16);
}

}  // namespace zelta::core_service::media
