// SPDX-License-Identifier: Apache-2.0
// One stream of one media file, as packets or as frames. One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "av.h"
#include "packet_queue.h"

namespace zelta::lay {

class stream_reader {
 public:
  // None, with `error`, for a file that can't be opened or has no such stream.
  static std::unique_ptr<stream_reader> open(const std::string& path, AVMediaType medium,
                                             std::string& error);

  // To the last key frame at or before `at_us` of the file; a file that can't seek is read on.
  void seek(int64_t at_us);

  // The next packet in the order of decoding, times in time_base(), mended where they were damaged.
  // False at the end.
  bool next_packet(AVPacket& packet);
  // The next frame in the order of showing, its `pts` in microseconds of the file. False at the
  // end; what can't be decoded is left out and counted. Not to be mixed with next_packet().
  bool next_frame(AVFrame& frame);

  const AVCodecParameters& parameters() const { return *stream_->codecpar; }
  AVRational time_base() const { return stream_->time_base; }
  // What went wrong so far, in words; empty: nothing.
  std::string fault() const;

 private:
  stream_reader();
  bool read(AVPacket& packet);
  bool open_decoder(std::string& error);
  bool feed_decoder();

  av_ptr<AVFormatContext> file_;
  AVStream* stream_ = nullptr;
  packet_queue packets_;
  av_ptr<AVCodecContext> decoder_;  // made by the first next_frame()
  av_ptr<AVPacket> packet_ = make_packet();
  bool fed_all_ = false;
  int broken_ = 0;
  std::string read_error_;
};

// What a file holds, by itself.
struct media_facts {
  bool is_media = false;
  bool is_mp4 = false;
  std::string video_codec;  // as manifests name them; empty: no picture
  std::string audio_codec;  // empty: no sound
  int width = 0;            // pixels
  int height = 0;
  // Of all its packets: the first that is shown, and the end of the last. Times beyond `most_us`
  // are damage, and not counted.
  int64_t begin_us = 0;
  int64_t end_us = 0;
};

// Reads all of the file. Throws `stopped`.
media_facts measure_media(const std::string& path, int64_t most_us);

}  // namespace zelta::lay
