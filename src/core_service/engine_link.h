// SPDX-License-Identifier: Apache-2.0
// The recorder's end of the link: decodes commands, sends events and frames.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "base/packet_reader.h"
#include "base/packet_writer.h"
#include "base/unique_fd.h"
#include "protocol/ipc_protocol.h"

namespace zelta::core_service {

// What the engine asks for, on the loop's thread. Packets that need no action are not listed.
class engine_listener {
 public:
  virtual void on_leave_command() = 0;
  virtual void on_log_level(uint32_t level) = 0;
  virtual void on_log_modules(uint32_t modules, bool enable) = 0;
  // A command that this recorder doesn't act on.
  virtual void on_other_command(const char* name) = 0;
  // The engine has closed its side or died; nothing can be sent any more.
  virtual void on_engine_gone() = 0;

 protected:
  ~engine_listener() = default;
};

// send() and send_frame() from any thread and never blocking; the rest on the loop's thread.
class engine_link final : private base::packet_reader::receiver {
 public:
  // Takes both descriptors; -1 for both: there is no engine, and what is sent goes nowhere. Loop
  // and listener are borrowed.
  engine_link(int read_fd, int write_fd, base::event_loop& loop, engine_listener& listener,
              std::string logdir);
  engine_link(const engine_link&) = delete;
  engine_link& operator=(const engine_link&) = delete;
  ~engine_link();

  bool connected() const { return writer_ != nullptr && !gone_; }
  // An event: waits in a queue when the engine is slow.
  void send(const base::packet& p);
  // A media frame: false, and counted, when the engine is so slow that it had to be dropped. Raw
  // frames go first, so that what is small still arrives.
  bool send_frame(const base::packet& p);
  uint64_t dropped_frames() const { return dropped_frames_; }
  // Writes what waits, for `limit` at most.
  void flush(std::chrono::milliseconds limit);

 private:
  void on_packet(base::unpacker& u, uint16_t uri) override;
  void on_readable();
  void on_writable();
  void on_gone();
  bool write(const base::packet& p, bool always);

  base::event_loop& loop_;
  engine_listener& listener_;
  const std::string logdir_;
  base::unique_fd read_fd_;
  base::unique_fd write_fd_;
  std::unique_ptr<base::packet_reader> reader_;
  std::unique_ptr<base::packet_writer> writer_;
  std::atomic<bool> gone_{false};
  std::atomic<uint64_t> dropped_frames_{0};
};

}  // namespace zelta::core_service
