// SPDX-License-Identifier: Apache-2.0
// The file that is made. One thread.
#pragma once

#include <string>

#include "av.h"

namespace zelta::lay {

class film_file {
 public:
  // Writes to `path`.part until finish(), in the container that the path's ending names. Throws
  // std::runtime_error, as all of this class does, with what failed.
  explicit film_file(const std::string& path);
  // Removes what isn't finished.
  ~film_file();
  film_file(const film_file&) = delete;
  film_file& operator=(const film_file&) = delete;

  // Whether encoders have to put their headers into the container.
  bool wants_global_headers() const;
  // Before start(). The index of the stream.
  int add_stream(const AVCodecParameters& parameters, AVRational time_base);
  void start();
  // Takes the packet's content. Times are in `time_base`.
  void write(AVPacket& packet, int stream, AVRational time_base);
  // The file is whole and has its name.
  void finish();

 private:
  std::string path_;
  std::string part_;
  av_ptr<AVFormatContext> muxer_;
  bool finished_ = false;
};

// Empty when a film can be written as `path`, else what would be right.
std::string film_name_fault(const std::string& path, bool audio_only);

}  // namespace zelta::lay
