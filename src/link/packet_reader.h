// SPDX-License-Identifier: Apache-2.0
// The receiving end of a link: turns a stream of bytes into packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/packer.h"

namespace zelta::link {

// Reads packets from a non-blocking descriptor. Small packets are read many to a system call into
// one buffer. The payload of a large media frame goes from the pipe straight into a string, which
// the decoder swaps into its frame (see unpacker): nothing copies it again, and since the storage
// changes hands both ways nothing is allocated once the largest frame has been seen. Not
// thread-safe.
class packet_reader {
 public:
  enum class result {
    kMore,    // the bound was reached, there may be more
    kEmpty,   // the pipe is empty for now
    kEnd,     // the other side has closed it, or reading failed for good
    kBroken,  // a length that can't be (the stream is out of step), or that there is no memory for
  };

  class receiver {
   public:
    // One packet; `u` stands in front of the uri. The reader must stay alive during the call.
    virtual void on_packet(base::unpacker& u, uint16_t uri) = 0;

   protected:
    ~receiver() = default;
  };

  // For media; commands need no more than kCommandBytes.
  static constexpr size_t kMediaBytes = 256 << 10;
  static constexpr size_t kCommandBytes = 16 << 10;

  // Both are borrowed. `buffer_bytes` is what is read at most with one call, large payloads aside.
  packet_reader(int fd, receiver& to, size_t buffer_bytes = kMediaBytes);

  // Reads and delivers until the pipe is empty, but stops after about `bound_bytes`, so that one
  // busy link leaves the loop time for others.
  result read_some(size_t bound_bytes);

 private:
  enum class step { kRead, kReadAll, kWait, kEnd };

  step read_once(size_t& total);
  bool deliver_buffered();
  bool start_large_frame(size_t total_bytes);
  void deliver_large_frame();
  void make_room(size_t bytes);

  char* begin() { return buffer_.get() + begin_; }
  size_t buffered() const { return end_ - begin_; }

  const int fd_;
  receiver& receiver_;
  // Pages of its own: what an idle link doesn't use costs no memory, and what a busy one has used
  // is the system's again when it ends. From the heap it would stay with the process.
  struct unmapped {
    size_t bytes = 0;
    void operator()(char* memory) const;
  };
  using buffer = std::unique_ptr<char, unmapped>;
  // Throws std::bad_alloc.
  static buffer allocate(size_t bytes);

  const size_t usual_capacity_;
  buffer buffer_;
  size_t capacity_;
  // What has been read and not delivered; while a large frame is read, its body without payload.
  size_t begin_ = 0;
  size_t end_ = 0;

  // How much is read into the buffer at a time: little where a large payload may follow, which
  // would only be copied out of it again.
  size_t window_;
  int large_frames_lately_ = 0;

  bool in_large_frame_ = false;
  std::string payload_;
  size_t payload_filled_ = 0;
  size_t payload_position_ = 0;
  // Length of the body without its payload.
  size_t fields_bytes_ = 0;
};

}  // namespace zelta::link
