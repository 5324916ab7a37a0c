// SPDX-License-Identifier: Apache-2.0
// One stream of one media file, as packets or as frames. One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "av.h"

namespace zelta::lay {

class stream_reader {
 public:
  // None, with `error`, for a file that can't be opened or has no such stream.
  static std::unique_ptr<stream_reader> open(const std::string& path, AVMediaType medium,
                                             std::string& error);

  // To the last key frame at or before `at_us` of the file; a file that can't seek is read on.
  void seek(int64_t at_us);

  // The next packet in the order of decoding, times in time_base(). False at the end.
  bool next_packet(AVPacket& packet);
  // The next frame in the order of showing, its `pts` in microseconds of the file. False at the
  // end; what can't be decoded is left out and counted. Not to be mixed with next_packet().
  bool next_frame(AVFrame& frame);

  const AVCodecParameters& parameters() const { return *stream_->codecpar; }
  AVRational time_base() const { return stream_->time_base; }
  // What went wrong so far, in words; empty: nothing.
  std::string fault() const;

 private:
  stream_reader() = default;
  bool open_decoder(std::string& error);
  bool feed_decoder();

  av_ptr<AVFormatContext> file_;
  AVStream* stream_ = nullptr;
  av_ptr<AVCodecContext> decoder_;  // made by the first next_frame()
  av_ptr<AVPacket> packet_ = make_packet();
  bool fed_all_ = false;
  int broken_ = 0;
  std::string read_error_;
};

// Where the media of a file ends, by its packets; 0 for what can't be read.
int64_t media_length_us(const std::string& path);

}  // namespace zelta::lay
