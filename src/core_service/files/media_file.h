// SPDX-License-Identifier: Apache-2.0
// One file of encoded media: a muxer, which is a function of samples, and the output that its bytes
// go to. MP4 loses a fragment of a fifth of a second to a kill, WebM a cluster; both are seekable
// after a clean end.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/files/file_contents.h"
#include "core_service/files/file_writer.h"
#include "core_service/media/codecs.h"
#include "core_service/media/muxer.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::files {

class media_file {
 public:
  // All is written, or as much as could be: `error` is empty, or says why not all; `disk` tells
  // that the disk was the reason. The file may be destroyed from inside the call.
  using done_callback = std::function<void(const std::string& error, bool disk)>;

  // Nothing is called from inside. Loop and writer are borrowed.
  media_file(const std::string& path, const file_contents& holds, base::event_loop& loop,
             file_writer& disk, done_callback done);
  media_file(const media_file&) = delete;
  media_file& operator=(const media_file&) = delete;
  // Stops at once: the file stays as a kill would leave it.
  ~media_file() = default;

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
  // In the file.
  uint64_t bytes() const { return output_ ? output_->written_bytes() : bytes_; }
  // See running_checksum; once it is complete.
  std::optional<uint32_t> crc32() const { return crc32_; }

 private:
  // Ends the file: with all of it where `why` is empty.
  void give_up(const std::string& why, bool disk);

  const base::poster poster_;
  const done_callback done_;
  const file_contents holds_;
  base::scoped_timer limit_;
  bool ended_ = false;
  bool written_ = false;
  media::media_time first_{};
  media::media_time last_{};
  uint64_t bytes_ = 0;
  std::optional<uint32_t> crc32_;
  const std::unique_ptr<media::muxer> muxer_;
  bool completing_ = false;
  std::unique_ptr<output> output_;
};

}  // namespace zelta::core_service::files
