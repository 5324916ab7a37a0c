// SPDX-License-Identifier: Apache-2.0
// Events that outlive the callback that they came in: a queue of them, and the pool of blocks that
// they are copied into.
//
// Blocks are kept by size, in powers of two, and used again, so that nothing is allocated once as
// many events of each size have been held as are held at a time. All blocks together have at most
// twice the bytes that frames may hold, and what other events need: free ones are given up for
// that. Once nothing is pushed any more the memory of what is free goes back to the system, because
// whoever keeps one frame for long keeps all blocks.
//
// Thread rule: push() belongs to one thread; the rest may be called from any.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "base/unique_fd.h"
#include "c_interface/outcome.h"

namespace zelta::c_interface {

class event_store {
 public:
  // `bound_bytes`: what frames may hold.
  explicit event_store(size_t bound_bytes);
  ~event_store();
  event_store(const event_store&) = delete;
  event_store& operator=(const event_store&) = delete;

  // Makes the descriptor of fd().
  outcome open();
  // Readable while events wait, and once close() or abandon() was called.
  int fd() const { return ready_fd_.get(); }

  // Queues a copy; a frame without room, or an event without memory, is counted instead, and a
  // ZELTA_EVENT_DROPPED stands in its place.
  void push(const zelta_event& event) noexcept;
  // ZELTA_OK and the oldest event; ZELTA_NO_EVENT after `timeout_ms`, which -1 makes endless;
  // ZELTA_END or ZELTA_ERROR_HANDLE when it is closed or abandoned.
  int next(int timeout_ms, const zelta_event*& event);

  // Hands out a copy past the queue.
  outcome copy(const zelta_event& event, const zelta_event*& copied);
  // One that was handed out is the caller's once more, or once less. False: it wasn't.
  bool hold(const zelta_event* event);
  bool release(const zelta_event* event);

  // Nothing will be pushed any more.
  void close();
  // Nobody is to wait any more.
  void abandon();

  // Bytes of all blocks there are.
  size_t capacity();

 private:
  struct block;
  struct losses {
    uint64_t audio_frames = 0;
    uint64_t video_frames = 0;
    uint64_t other_events = 0;
  };
  static constexpr size_t kSizes = 33;

  static size_t counted_for(const zelta_event& event, size_t bytes);
  block* take_locked(size_t bytes, size_t counted);
  void give_up_free_locked(size_t wanted);
  void recycle_locked(block& unused);
  block* handed_out_locked(const zelta_event* event);
  void append_locked(block& filled);
  void count_loss_locked(const zelta_event& event);
  void tell_losses_locked();
  void show_readiness_locked();

  const size_t bound_;
  base::unique_fd ready_fd_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // All blocks there are, by the event that the application knows.
  std::map<const zelta_event*, std::unique_ptr<block>> blocks_;
  std::array<block*, kSizes> free_{};
  block* first_ = nullptr;  // of the queue
  block* last_ = nullptr;
  size_t held_ = 0;      // bytes that frames hold
  size_t capacity_ = 0;  // of all blocks
  losses untold_;        // there was no memory to tell them
  uint64_t frames_dropped_ = 0;
  bool shown_ready_ = false;
  bool closed_ = false;
  bool abandoned_ = false;
};

}  // namespace zelta::c_interface
