// SPDX-License-Identifier: Apache-2.0
// One recorder process and its two pipes, from launch to end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/packet.h"
#include "base/router.h"
#include "base/scoped_watch.h"
#include "link/packet_reader.h"
#include "link/packet_writer.h"
#include "link/recorder_process.h"

namespace zelta::link {

// send() from any thread; everything else on the loop's thread, or while the loop doesn't run.
class recorder_link final : private packet_reader::receiver {
  struct made_by_start {};

 public:
  struct settings {
    bool large_pipes;
    base::logger log;
    std::vector<std::string> environment;  // as router::set_environment() has it
    base::router_listener* listener;
    base::event_loop* loop;
  };

  // Null, with a log line, when the recorder could not be started.
  static std::unique_ptr<recorder_link> start(const std::vector<const char*>& argv, settings to);
  recorder_link(const recorder_link&) = delete;
  recorder_link& operator=(const recorder_link&) = delete;
  // Ends the recorder by force if it still runs.
  ~recorder_link();

  void send(const base::packet& p);
  // Writes what waits, for 1 s at most; what is left then is told at error level. Reads on and
  // throws away while it writes: a recorder that is stuck in a full pipe of its own would not read
  // either.
  void flush();
  // Flushes, closes, and waits for the recorder to complete its files.
  void finish();

  recorder_link(made_by_start, settings to, base::unique_fd read_end, base::unique_fd write_end,
                recorder_process process);

 private:
  void on_packet(base::unpacker& u, uint16_t uri) override;
  void on_readable();
  void on_writable();
  void on_unread(int events);
  void on_break(int events);
  void on_exit();
  packet_reader::result drain();
  void close_pipes();
  void end_process(std::chrono::milliseconds patience);

  const settings to_;
  base::unique_fd read_end_;
  base::unique_fd write_end_;
  recorder_process process_;
  // What senders on other threads name the descriptor by, also while it is being closed.
  const int write_fd_;
  packet_reader reader_;
  packet_writer writer_;
  // Set once the link has ended, by a break or by finish().
  bool ended_ = false;
  base::atomic_bool_t refusing_{false};
  base::scoped_watch read_watch_;
  base::scoped_watch write_watch_;
  base::scoped_watch exit_watch_;
};

}  // namespace zelta::link
