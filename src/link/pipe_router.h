// SPDX-License-Identifier: Apache-2.0
// The link to a recorder process over two pipes.
//
// One break of the link gives one on_error, whichever descriptor tells first, after everything that
// the recorder had sent was delivered and after its process was made sure of. A length that can't
// be counts as POLLERR.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "base/router.h"

namespace zelta::link {
class recorder_link;
}

namespace zelta::base {

// launch_recorder, relaunch_recorder and shutdown as in router; send_packet from any thread.
class pipe_router : public router {
 public:
  // `large_pipes` raises the capacity of the pipes to 1 MiB where the system allows it.
  explicit pipe_router(bool large_pipes);
  ~pipe_router() override;

  // Adds "--read" and "--write" with the recorder's descriptors to a copy of `argv`. -1, with a log
  // line that names the failing call or every place where the program was looked for, when the
  // recorder could not be started.
  int launch_recorder(std::vector<const char*>& argv, event_loop* loop) override;
  int relaunch_recorder(std::vector<const char*>& argv, event_loop* loop) override;
  // Flushes for up to 1 s, closes the pipes, gives the recorder 10 s to complete its files, then
  // SIGTERM and 2 s, then SIGKILL.
  void shutdown() override;
  // Up to 16 MiB wait for a recorder that doesn't read; past that the newest packet is refused,
  // with one log line an episode. A leave_packet always fits.
  void send_packet(packet* p) override;
  // For up to 1 s; what the recorder sends meanwhile is thrown away.
  void flush() override;

 private:
  int start_link(const std::vector<const char*>& argv, event_loop* loop);
  std::shared_ptr<link::recorder_link> current_link();

  const bool large_pipes_;
  // Guards the pointer for senders on other threads; the link itself belongs to the loop.
  std::mutex link_lock_;
  std::shared_ptr<link::recorder_link> link_;
  // Links that were replaced while another thread ran the loop; they end with the router.
  std::vector<std::shared_ptr<link::recorder_link>> replaced_;
};

}  // namespace zelta::base
