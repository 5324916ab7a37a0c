// SPDX-License-Identifier: Apache-2.0
// The recorder's end of the link: decodes commands, sends events and frames.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "link/packet_reader.h"
#include "link/packet_writer.h"
#include "protocol/ipc_protocol.h"

namespace zelta::core_service {

// What the engine asks for, on the loop's thread. Packets that need no action are not listed.
class engine_listener {
 public:
  virtual void on_leave_command() = 0;
  virtual void on_log_level(uint32_t level) = 0;
  virtual void on_log_modules(uint32_t modules, bool enable) = 0;
  // A JSON text.
  virtual void on_parameters(const std::string& text) = 0;
  // As protocol/mixing_layout.h encodes it.
  virtual void on_layout(const std::vector<uint8_t>& bytes) = 0;
  virtual void on_start_service() = 0;
  virtual void on_stop_service() = 0;
  virtual void on_user_background(uint32_t uid, const std::string& path) = 0;
  // The engine has closed its side or died; nothing can be sent any more.
  virtual void on_engine_gone() = 0;

 protected:
  ~engine_listener() = default;
};

// What sends may be called from any thread and never blocks; the rest on the loop's thread.
class engine_link final : private link::packet_reader::receiver {
 public:
  // Takes both descriptors; -1 for both: there is no engine, and what is sent goes nowhere. The
  // loop is borrowed. Payloads are spliced unless `payloads` says otherwise.
  engine_link(int read_fd, int write_fd, base::event_loop& loop, base::logger log,
              link::packet_writer::large payloads = link::packet_writer::large::kSplice);
  engine_link(const engine_link&) = delete;
  engine_link& operator=(const engine_link&) = delete;
  ~engine_link();

  // Commands come from here on, and what has to wait is written. The listener is borrowed.
  void listen(engine_listener& listener);
  bool connected() const { return writer_ != nullptr && !gone_; }
  // An event: waits in a queue when the engine is slow.
  void send(const base::packet& p);
  // Media frames, whose packets come with an empty `data` and the payload beside them. A payload
  // without an owner is copied, one with an owner is held until the engine has read it. False, and
  // counted, when the engine is so slow that one had to be dropped. Of raw
  // pictures the oldest that wait make room; of coded ones all go up to the next key frame of the
  // user; sound goes last.
  bool send_picture(const base::packet& p, link::payload data);
  bool send_coded(const base::packet& p, link::payload data, uint32_t uid, bool key);
  bool send_sound(const base::packet& p, link::payload data);
  struct dropped_frames {
    std::atomic<uint64_t> pictures{0};
    std::atomic<uint64_t> coded{0};
    std::atomic<uint64_t> sound{0};
  };
  const dropped_frames& dropped() const { return dropped_; }
  // Bytes that wait for the engine here, outside the pipe.
  size_t waiting_bytes() const { return connected() ? writer_->queued_bytes() : 0; }
  // Writes what waits, for `limit` at most.
  void flush(std::chrono::milliseconds limit);

 private:
  void on_packet(base::unpacker& u, uint16_t uri) override;
  void on_readable();
  void on_writable();
  void flush_soon();
  void on_gathered();
  void on_gone();
  bool sent(link::packet_writer::result how);

  base::event_loop& loop_;
  engine_listener* listener_ = nullptr;
  const base::logger log_;
  base::unique_fd read_fd_;
  base::unique_fd write_fd_;
  base::unique_fd gather_timer_;
  std::unique_ptr<link::packet_reader> reader_;
  std::unique_ptr<link::packet_writer> writer_;
  std::atomic<bool> gone_{false};
  dropped_frames dropped_;
  std::mutex broken_lock_;
  // Users whose coded pictures wait for a key frame.
  std::set<uint32_t> broken_;
  base::scoped_watch read_watch_;
  base::scoped_watch write_watch_;
  base::scoped_watch gather_watch_;
};

}  // namespace zelta::core_service
