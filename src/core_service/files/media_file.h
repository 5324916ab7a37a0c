// SPDX-License-Identifier: Apache-2.0
// One file of encoded media: a muxer, which is a function of samples, and the output that its bytes
// go to.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "core_service/files/file_writer.h"
#include "core_service/media/codecs.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::files {

enum class container { kMp4, kM4a, kWebm };

class media_file {
 public:
  struct contents {
    container kind;
    bool video;
    bool sound;
  };
  // All is written, or as much as could be: `error` is empty, or says why not all; `disk` tells
  // that the disk was the reason. The file may be destroyed from inside the call.
  using done_callback = std::function<void(const std::string& error, bool disk)>;

  // Null, with `error`, when a plugin is missing. Nothing is called from inside make(). Loop and
  // writer are borrowed.
  static std::unique_ptr<media_file> make(const std::string& path, const contents& holds,
                                          base::event_loop& loop, file_writer& disk,
                                          done_callback done, std::string& error);
  media_file(const media_file&) = delete;
  media_file& operator=(const media_file&) = delete;
  // Stops at once; an MP4 that wasn't finished stays a fragmented one.
  virtual ~media_file();

  // Samples of each kind in the order of decoding. A kind that the file doesn't hold is ignored.
  void write(media::media_kind kind, const media::media_sample& sample);
  // No more comes; `done` follows, within a bound.
  void finish();
  // Stays as it is on the disk: a file that is completed on a full disk may lose what it has.
  // `done` follows.
  void abandon();

  // Of what was written so far, presentation times; equal: nothing.
  media::media_time first() const { return first_; }
  media::media_time last() const { return last_; }
  bool empty() const { return !written_; }

 protected:
  media_file(const contents& holds, base::event_loop& loop, done_callback done);
  // One sample on its way; what had to be kept back comes with a later one.
  virtual void mux(media::media_kind kind, const media::media_sample& sample) = 0;
  // The rest, after which give_up("") is to be called once all is written.
  virtual void complete() = 0;
  // Nothing more is written after it.
  virtual void stop() = 0;
  virtual size_t waiting_bytes() const = 0;
  // Ends the file: with all of it where `why` is empty.
  void give_up(const std::string& why, bool disk);

 private:
  base::event_loop& loop_;
  const media::posting posting_;
  const done_callback done_;
  const contents holds_;
  base::timer_event* limit_ = nullptr;
  bool ended_ = false;
  bool written_ = false;
  media::media_time first_{};
  media::media_time last_{};
};

// The containers, for make(). Both are as make() is.
std::unique_ptr<media_file> make_mp4_file(const std::string& path,
                                          const media_file::contents& holds, base::event_loop& loop,
                                          file_writer& disk, media_file::done_callback done);
std::unique_ptr<media_file> make_webm_file(const std::string& path,
                                           const media_file::contents& holds,
                                           base::event_loop& loop, media_file::done_callback done,
                                           std::string& error);

}  // namespace zelta::core_service::files
