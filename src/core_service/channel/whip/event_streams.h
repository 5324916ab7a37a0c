// SPDX-License-Identifier: Apache-2.0
// Answers that last as long as a session: their end, or that of the process, tells a client at once
// that it has to publish anew, while its own ICE needs seconds to notice.
//
// They are streams of events (text/event-stream) without an event; a comment now and then keeps
// what stands between from taking the connection for dead, and finds out who is gone.
//
// Made on any thread, everything else on the thread that iterates the context.
#pragma once

#include <map>
#include <string>

#include "core_service/channel/glib.h"
#include "core_service/channel/http_listener.h"

typedef struct _SoupServerMessage SoupServerMessage;

namespace zelta::core_service {

class event_streams {
 public:
  // Borrowed.
  explicit event_streams(http_listener& listener) : listener_(listener) {}
  event_streams(const event_streams&) = delete;
  event_streams& operator=(const event_streams&) = delete;

  void start(GMainContext* context);
  // Makes a stream of the answer to this paused message, whose headers may still be set. It takes
  // the place of another of the same session. False: no more can be held.
  bool open(SoupServerMessage* message, const std::string& session);
  void end(const std::string& session);
  // Ends them all.
  void stop();

 private:
  using message_ptr = glib_ptr<SoupServerMessage>;

  void complete(message_ptr message);
  static gboolean on_time(gpointer self);
  static void on_finished(SoupServerMessage* message, gpointer self);

  http_listener& listener_;
  std::map<std::string, message_ptr> open_;
  source_ptr timer_;
};

}  // namespace zelta::core_service
