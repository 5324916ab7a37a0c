// SPDX-License-Identifier: Apache-2.0
// An encoder that writes into a stream of the film. One thread; all throws std::runtime_error.
#pragma once

#include "av.h"
#include "film_file.h"

namespace zelta::lay {

class encoder {
 public:
  encoder(av_ptr<AVCodecContext> opened, film_file& into);
  // Null: no frame follows, all that is left is written.
  void encode(const AVFrame* frame);
  int frame_size() const { return codec_->frame_size; }

 private:
  av_ptr<AVCodecContext> codec_;
  film_file& into_;
  int stream_;
  av_ptr<AVPacket> packet_ = make_packet();
};

// H.264. `global_header`: its headers go into the container; else before every key frame.
av_ptr<AVCodecContext> open_picture_encoder(int width, int height, int fps, bool global_header);
av_ptr<AVCodecContext> open_sound_encoder(bool global_header);

}  // namespace zelta::lay
