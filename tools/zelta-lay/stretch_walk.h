// SPDX-License-Identifier: Apache-2.0
// One medium of a user, file after file, on the session's time. One thread.
//
// What holds for all who read is said here once: which files are passed over, where one ends, and
// which of its times are believed. What can't be read becomes a problem, and the rest is read on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "session.h"
#include "stream_reader.h"

namespace zelta::lay {

class stretch_walk {
 public:
  // Both outlive this.
  stretch_walk(const user& of, AVMediaType medium, problems& found);
  ~stretch_walk();
  stretch_walk(const stretch_walk&) = delete;
  stretch_walk& operator=(const stretch_walk&) = delete;

  // To the next file that ends after `after_us` and begins before `before_us`; the one before is
  // closed. False, and nothing is closed, when there is none yet.
  bool open_next(int64_t after_us, int64_t before_us);
  bool is_open() const { return reader_ != nullptr; }
  void close();

  // Of the file that is open, or was last.
  const stretch& current() const { return *current_; }
  // Of the file that is open.
  const stream_reader& reader() const { return *reader_; }
  // To the last key frame at or before that moment.
  void seek(int64_t at_us);

  // The next packet in the order of decoding, or frame in that of showing; `pts` and `dts` are
  // microseconds of the session. False at the file's end, or where the user's next one begins; the
  // file is closed then. The two are not to be mixed in one file.
  bool next_packet(AVPacket& packet);
  bool next_frame(AVFrame& frame);

  // What is wrong with the file, for the problems.
  void add_fault(const std::string& words);

 private:
  std::optional<int64_t> believed(int64_t ticks, AVRational base);
  bool is_over(int64_t at_us) const;

  const user& of_;
  AVMediaType medium_;
  problems& found_;
  size_t next_ = 0;
  const stretch* current_ = nullptr;
  std::unique_ptr<stream_reader> reader_;
};

}  // namespace zelta::lay
