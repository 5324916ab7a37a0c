// SPDX-License-Identifier: Apache-2.0
#include "av.h"

#include <new>
#include <stdexcept>

namespace zelta::lay {

av_ptr<AVFrame> make_frame() {
  av_ptr<AVFrame> made(av_frame_alloc());
  if (made == nullptr) throw std::bad_alloc();
  return made;
}

av_ptr<AVPacket> make_packet() {
  av_ptr<AVPacket> made(av_packet_alloc());
  if (made == nullptr) throw std::bad_alloc();
  return made;
}

std::string av_words(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof text);
  return text;
}

int av_check(int result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + av_words(result));
  return result;
}

av_ptr<AVFrame> make_picture(int width, int height) {
  av_ptr<AVFrame> made = make_frame();
  made->format = AV_PIX_FMT_YUV420P;
  made->width = width;
  made->height = height;
  av_check(av_frame_get_buffer(made.get(), 0), "memory for a picture");
  return made;
}

}  // namespace zelta::lay
