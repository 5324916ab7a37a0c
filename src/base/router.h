// SPDX-License-Identifier: Apache-2.0
// The engine's end of the link to a recorder.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "base/packet.h"

namespace zelta::base {

// Told what comes from the recorder, always on the loop's thread.
class router_listener {
 public:
  // `u` stands at the start of the body, in front of the uri that is given beside it. False when
  // the packet was refused.
  virtual bool on_receive_packet(unpacker& u, uint16_t uri) = 0;
  virtual bool on_receive_packet(const packet& p, uint16_t uri) = 0;
  // The link broke; `error` holds poll bits. Called once a link.
  virtual bool on_error(int error) = 0;

 protected:
  ~router_listener() = default;
};

class router {
 public:
  router() = default;
  router(const router&) = delete;
  router& operator=(const router&) = delete;
  virtual ~router() = default;

  // Starts the recorder with `argv`, which ends with a null pointer, and attaches the link to
  // `loop`. 0 on success. Before the loop runs, or on its thread.
  virtual int launch_recorder(std::vector<const char*>& argv, event_loop* loop) = 0;
  // The same after a break, with the recorder that broke made sure of first.
  virtual int relaunch_recorder(std::vector<const char*>& argv, event_loop* loop) = 0;
  // Closes the link and waits, within bounds, for the recorder to complete its files. The loop
  // must not run any more.
  virtual void shutdown() = 0;
  // Takes `p`, which was made with new, and deletes it when it has been written or refused. Any
  // thread; never blocks.
  virtual void send_packet(packet* p) = 0;
  // Sees to it that the recorder gets what was sent until now: within a bound it is all with the
  // kernel, or a line at error level tells how much isn't. On the loop's thread, after the loop.
  virtual void flush() {}

  // The listener is borrowed and must outlive the router's last callback.
  void register_listener(router_listener* listener) { listener_ = listener; }
  void set_logdir(const std::string& dir) { logdir_ = dir; }
  // Variables as "NAME=VALUE" that recorders started from here on have in place of the
  // application's.
  void set_environment(std::vector<std::string> variables) { environment_ = std::move(variables); }

 protected:
  router_listener* listener_ = nullptr;
  std::string logdir_;
  std::vector<std::string> environment_;
};

}  // namespace zelta::base
