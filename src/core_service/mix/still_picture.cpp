// SPDX-License-Identifier: Apache-2.0
#include "core_service/mix/still_picture.h"

#include <array>
#include <cstring>
#include <fstream>
#include <vector>

#include <gst/video/video.h>
#include <sys/stat.h>

namespace zelta::core_service::mix {
namespace {

constexpr off_t kMaxBytes = 32 << 20;
constexpr int kMaxSide = 8192;

// By what the file begins with: names of files lie.
const char* decoder_of(const std::string& path) {
  std::array<char, 8> start{};
  std::ifstream file(path, std::ios::binary);
  file.read(start.data(), start.size());
  if (file.gcount() == 8 && std::memcmp(start.data(), "\x89PNG\r\n\x1a\n", 8) == 0) return "pngdec";
  if (file.gcount() >= 3 && std::memcmp(start.data(), "\xff\xd8\xff", 3) == 0) return "jpegdec";
  return nullptr;
}

}  // namespace

media::sample_ptr load_picture(const std::string& path, std::string& error) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    error = path + ": " + std::strerror(errno);
    return nullptr;
  }
  const char* const decoder = S_ISREG(status.st_mode) ? decoder_of(path) : nullptr;
  if (decoder == nullptr || status.st_size > kMaxBytes) {
    error = path + " should be a PNG or JPEG image of at most 32 MiB";
    return nullptr;
  }
  media::element_ptr pipeline = media::make_pipeline(
      std::string("filesrc name=file ! ") + decoder +
          " ! videoconvert ! video/x-raw,format=I420 ! appsink name=out sync=false",
      error);
  if (!pipeline) return nullptr;
  g_object_set(media::child(pipeline.get(), "file"), "location", path.c_str(), nullptr);
  const media::bus_ptr bus(gst_pipeline_get_bus(GST_PIPELINE(pipeline.get())));
  gst_element_set_state(pipeline.get(), GST_STATE_PAUSED);
  const media::message_ptr message(gst_bus_timed_pop_filtered(
      bus.get(), 2 * GST_SECOND,
      static_cast<GstMessageType>(GST_MESSAGE_ASYNC_DONE | GST_MESSAGE_ERROR)));
  media::sample_ptr picture;
  if (message && media::type_of(message.get()) == GST_MESSAGE_ASYNC_DONE) {
    picture.reset(
        gst_app_sink_try_pull_preroll(GST_APP_SINK(media::child(pipeline.get(), "out")), 0));
  }
  gst_element_set_state(pipeline.get(), GST_STATE_NULL);
  GstVideoInfo info;
  if (picture && (gst_video_info_from_caps(&info, gst_sample_get_caps(picture.get())) == FALSE ||
                  info.width > kMaxSide || info.height > kMaxSide)) {
    picture.reset();
  }
  if (!picture) error = path + " is broken or larger than 8192 pixels a side";
  return picture;
}

media::sample_ptr plain_picture(uint32_t colour, int width, int height) {
  // One pixel of the colour, which scaling converts and spreads.
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_RGB, 2, 2);
  std::vector<uint8_t> pixels(info.size);
  for (size_t row = 0; row < 2; ++row) {
    for (size_t column = 0; column < 2; ++column) {
      uint8_t* const pixel = pixels.data() +
                             row * static_cast<size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0)) +
                             column * 3;
      pixel[0] = static_cast<uint8_t>(colour >> 16U);
      pixel[1] = static_cast<uint8_t>(colour >> 8U);
      pixel[2] = static_cast<uint8_t>(colour);
    }
  }
  // As wide and high as the result, so that scaling leaves no border.
  info.par_n = width;
  info.par_d = height;
  const media::caps_ptr caps(gst_video_info_to_caps(&info));
  const media::buffer_ptr buffer(gst_buffer_new_memdup(pixels.data(), pixels.size()));
  const media::sample_ptr dot(gst_sample_new(buffer.get(), caps.get(), nullptr, nullptr));
  return scaled_picture(dot.get(), width, height);
}

media::sample_ptr scaled_picture(GstSample* image, int width, int height) {
  const media::caps_ptr caps(gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, width, "height",
      G_TYPE_INT, height, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, "colorimetry",
      G_TYPE_STRING, colorimetry_of(height), nullptr));
  return media::sample_ptr(gst_video_convert_sample(image, caps.get(), 2 * GST_SECOND, nullptr));
}

}  // namespace zelta::core_service::mix
