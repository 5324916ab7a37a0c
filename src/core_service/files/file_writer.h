// SPDX-License-Identifier: Apache-2.0
// Writes the bytes of all files from one thread: the loop's thread never waits for a disk, and what
// has come together for a file since the last turn goes out in one system call.
//
// Thread rule: everything on the loop's thread, and so are the callbacks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "core_service/media/gst.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::files {

class output;

// Where what is appended to a file goes: over what it holds; or behind that, on a line of its own,
// although a machine that crashed may have left a part of one.
enum class placement { kOver, kNextLine };

class file_writer {
 public:
  // The loop is borrowed.
  explicit file_writer(base::event_loop& loop);
  file_writer(const file_writer&) = delete;
  file_writer& operator=(const file_writer&) = delete;
  // Waits for the write that is on its way, and only for that.
  ~file_writer();

  // `failed` gets the errno of the first thing that could not be done, opening included; nothing is
  // written to the file any more from then on. The file is made where there is none.
  std::unique_ptr<output> open(const std::string& path, std::function<void(int error)> failed,
                               placement where = placement::kOver);
  // How long something waited to be written, the longest since the last call.
  media::media_time take_behind();

 private:
  friend class output;
  class worker;
  std::shared_ptr<worker> worker_;
};

// One file that is being written.
class output {
 public:
  struct state;

  output(std::shared_ptr<file_writer::worker> by, std::shared_ptr<state> of);
  output(const output&) = delete;
  output& operator=(const output&) = delete;
  // What waits is dropped, and no callback comes any more.
  ~output();

  void append(std::vector<media::buffer_ptr> bytes);
  // Once everything before it is written.
  void overwrite(uint64_t at, std::vector<uint8_t> bytes);
  // `done` follows when everything is written; if that fails, `failed` of open() comes in its
  // place. Nothing is given after it.
  void close(std::function<void()> done);
  // Bytes that are not in the file yet.
  size_t waiting_bytes() const;
  // Those that are, as far as they came from here.
  uint64_t written_bytes() const;
  // Of them, see running_checksum; once `done` of close() has come. None: something that was to be
  // written over could not be read.
  std::optional<uint32_t> crc32() const;

 private:
  const std::shared_ptr<file_writer::worker> worker_;
  const std::shared_ptr<state> state_;
};

}  // namespace zelta::core_service::files
