// SPDX-License-Identifier: Apache-2.0
// One file: encoded media, muxed, and a pipeline that writes it.
//
//     WebM:  write(video) ─▶ queue ─▶ webmmux ─▶ file      MP4:  write() ─▶ mp4::muxer ─▶ queue ─▶
//     file
//            write(sound) ─▶ queue ─┘
//
// MP4 is written in fragments of a fifth of a second, of which a killed recorder loses the last,
// and becomes a plain seekable file on a clean end. The queues outlast hiccups of a disk.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core_service/media/codecs.h"
#include "core_service/media/gst.h"
#include "core_service/media/mp4/muxer.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

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

  // Null, with `error`, when a plugin is missing. Nothing is called from inside make().
  static std::unique_ptr<media_file> make(const std::string& path, const contents& holds,
                                          base::event_loop& loop, done_callback done,
                                          std::string& error);
  media_file(const media_file&) = delete;
  media_file& operator=(const media_file&) = delete;
  // Stops at once; an MP4 that wasn't finished stays a fragmented one.
  ~media_file();

  // Samples of each kind in the order of decoding. A kind that the file doesn't hold is ignored.
  void write(media_kind kind, const media_sample& sample);
  // No more comes; `done` follows, within a bound.
  void finish();
  // Stays as it is on the disk: a file that is completed on a full disk may lose what it has.
  // `done` follows.
  void abandon();

  // Of what was written so far, presentation times; equal: nothing.
  media_time first() const { return first_; }
  media_time last() const { return last_; }
  bool empty() const { return !written_; }

 private:
  media_file(element_ptr pipeline, std::string path, const contents& holds, base::event_loop& loop,
             done_callback done);
  void mux(media_kind kind, const media_sample& sample);
  void push(std::vector<buffer_ptr> bytes);
  void on_written();
  void give_up(const std::string& why, bool disk);

  base::event_loop& loop_;
  const posting posting_;
  const done_callback done_;
  const contents holds_;
  element_ptr pipeline_;
  std::optional<bus_watch> watch_;
  const std::string path_;
  // Borrowed from the pipeline. WebM's, null: the file holds none; MP4's, and its muxer.
  GstElement* const video_;
  GstElement* const sound_;
  GstElement* const bytes_;
  std::optional<mp4::muxer> mp4_;
  base::timer_event* limit_ = nullptr;
  bool failed_ = false;
  bool written_ = false;
  media_time first_{};
  media_time last_{};
};

}  // namespace zelta::core_service::media
