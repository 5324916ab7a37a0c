// SPDX-License-Identifier: Apache-2.0
// Speaks HTTP to all clients of a whip_server, on a thread of its own: libsoup lives in a context
// of GLib's, which the recorder's loop is not.
//
//     client ─ request ─▶ judged by the rules ─ ask(id, question) ─▶ somebody else's thread
//     client ◀─ answer ── on this thread ◀──────── answer(id, …) ─────┘
//
// A connection has one request. One that goes away before it is answered is let go of when the
// answer comes. An answer that lasts with a session goes on until session_ended().
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "core_service/channel/glib.h"
#include "core_service/channel/glib_thread.h"
#include "core_service/channel/http_listener.h"
#include "core_service/channel/whip/answers.h"
#include "core_service/channel/whip/event_streams.h"
#include "core_service/channel/whip/whip_rules.h"

typedef struct _SoupServer SoupServer;
typedef struct _SoupServerMessage SoupServerMessage;

namespace zelta::core_service {

class http_thread {
 public:
  // Comes on the thread, with a whole body. answer() is due for each, once.
  using ask_question = std::function<void(uint64_t id, const whip_question& question)>;

  // Throws std::system_error when there is no thread to be had.
  http_thread(std::unique_ptr<http_listener> listener, whip_rules rules, ask_question ask);
  http_thread(const http_thread&) = delete;
  http_thread& operator=(const http_thread&) = delete;
  // Whoever waits gets 503. Takes 0.2 s at most to tell them.
  ~http_thread();

  // Any thread. Nothing happens when nobody waits for it any more.
  void answer(uint64_t id, http_answer what);
  // Any thread. Ends the answers that last with it, also one that was given just before.
  void session_ended(const std::string& session);

 private:
  struct exchange;
  using message_ptr = glib_ptr<SoupServerMessage>;

  void serve();
  void finish();
  void give(uint64_t id, const http_answer& what);
  void on_headers(SoupServerMessage* message);
  void on_body_part(SoupServerMessage* message, size_t bytes);
  void on_request(SoupServerMessage* message);

  const std::unique_ptr<http_listener> listener_;
  const whip_rules rules_;
  const ask_question ask_;

  // Of the thread.
  glib_ptr<SoupServer> server_;
  bool refusing_ = false;
  uint64_t last_id_ = 0;
  std::map<uint64_t, message_ptr> waiting_;
  event_streams streams_;
  size_t exchanges_ = 0;  // begun, and not finished

  glib_thread thread_;
};

}  // namespace zelta::core_service
