// SPDX-License-Identifier: Apache-2.0
// A session with a Janus gateway: requests and their replies, and what the gateway tells of its
// own. It outlives its connection, and is taken up by the next one if the gateway still has it.
//
//     connect ─▶ create or claim ─▶ ready ─▶ requests, events ─▶ lost ─▶ connect …
//
// Everything on the loop's thread. No callback comes from inside a call of its caller's; each may
// destroy the gateway.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <json/json.h>

#include "base/event_loop.h"
#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/channel/janus/gateway_link.h"
#include "core_service/channel/janus/gateway_message.h"
#include "core_service/channel/janus/gateway_place.h"

namespace zelta::core_service::janus {

class gateway {
 public:
  using clock = std::chrono::steady_clock;
  struct limits {
    // A request that takes longer, a connection or a claim too, is the end of the connection.
    std::chrono::milliseconds answer{10'000};
    std::chrono::milliseconds keepalive{25'000};
    // The gateway ends a poll in which nothing happens after 30 s.
    std::chrono::milliseconds poll{45'000};
  };
  struct events {
    // `again`: it is the session of before, with its handles.
    std::function<void(bool again)> ready;
    // Once for each connect() at most. Replies that are due don't come any more.
    std::function<void(const std::string& why)> lost;
  };
  using on_message = std::function<void(const gateway_message& message)>;

  // What goes with every request; empty: it doesn't.
  struct credentials {
    std::string token;
    std::string api_secret;
  };
  // The loop is borrowed.
  gateway(gateway_place at, credentials shown, limits bounds, base::event_loop& loop, events told);
  gateway(const gateway&) = delete;
  gateway& operator=(const gateway&) = delete;
  // Takes 0.2 s at most.
  ~gateway();

  // In place of a connection that is lost.
  void connect();
  // Ends the session, with all its handles; nothing is asked any more.
  void leave();
  // As if the connection had been lost, and the session with it. lost() comes.
  void abandon(const std::string& why);

  // 0: there is none.
  uint64_t session() const { return session_; }
  bool is_ready() const { return ready_; }

  // `request` has "janus", and what belongs to it; `what` is its name, for errors. `handle` 0: it
  // is the session's. The reply is the gateway's last word on it, an error's too.
  void ask(const char* what, uint64_t handle, Json::Value request, on_message reply);
  // What comes unasked for a handle of this session, until forget().
  void listen(uint64_t handle, on_message told) { handles_[handle] = std::move(told); }
  void forget(uint64_t handle) { handles_.erase(handle); }

 private:
  struct pending {
    const char* what;
    clock::time_point due;
    on_message reply;
  };

  void on_opened();
  void open_session();
  void on_session(const gateway_message& reply, bool again);
  void on_text(const std::string& text);
  void on_message_of(const gateway_message& message);
  void poll();
  void tick();
  void end(const std::string& why);
  void send(const std::string& path, const Json::Value& request);

  const gateway_place at_;
  const credentials shown_;
  const limits limits_;
  const events events_;
  uint64_t session_ = 0;
  bool ready_ = false;
  bool opening_ = false;
  clock::time_point open_until_;
  clock::time_point kept_alive_;
  clock::time_point polled_;
  uint64_t transactions_ = 0;
  std::map<std::string, pending> pending_;
  std::map<uint64_t, on_message> handles_;
  base::poster poster_;
  base::scoped_timer tick_;
  base::scoped_timer next_poll_;
  uint64_t links_ = 0;  // so far; what one of before says isn't heard any more
  std::unique_ptr<gateway_link> link_;
};

}  // namespace zelta::core_service::janus
