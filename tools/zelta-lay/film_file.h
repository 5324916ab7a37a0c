// SPDX-License-Identifier: Apache-2.0
// The file that is made. One thread, but for write().
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "av.h"
#include "new_file.h"

namespace zelta::lay {

class film_file {
 public:
  // As new_file, in the container that the path's ending names. Throws std::runtime_error, as all
  // of this class does, with what failed; after a stop signal nothing more is written.
  film_file(const std::string& path, bool overwrite);
  ~film_file();
  film_file(const film_file&) = delete;
  film_file& operator=(const film_file&) = delete;

  // Whether encoders have to put their headers into the container.
  bool wants_global_headers() const;
  // Before start(). The index of the stream. A codec tag that the container doesn't have is left to
  // it.
  int add_stream(const AVCodecParameters& parameters, AVRational time_base);
  void start();
  // Takes the packet's content. Times are in `time_base`. Any thread.
  void write(AVPacket& packet, int stream, AVRational time_base);
  // The file is whole and has its name.
  void finish();

 private:
  struct muxer_deleter {
    void operator()(AVFormatContext* muxer) const { avformat_free_context(muxer); }
  };

  int64_t delay_of(const AVStream& stream) const;

  new_file file_;
  std::mutex writing_;
  std::unique_ptr<AVFormatContext, muxer_deleter> muxer_;
};

// Empty when a film can be written as `path`, else what would be right.
std::string film_name_fault(const std::string& path, bool audio_only);

}  // namespace zelta::lay
