// SPDX-License-Identifier: Apache-2.0
// The end of HTTP that users publish at by WHIP (RFC 9725), and the page that does it from a
// browser. Whatever has to be decided is asked of `publishers`.
//
// Thread rule: made, used and destroyed on the loop's thread, or while the loop doesn't run; HTTP
// has a thread of its own, which shares nothing with others but questions and answers.
#pragma once

#include <memory>
#include <string>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/poster.h"
#include "core_service/channel/whip/publishers.h"

namespace zelta::core_service {

class http_thread;

struct whip_terms {
  std::string address;  // IP address to listen at; empty: all of the machine's
  int port = 0;         // TCP; 0: any that is free
  std::string channel;  // of the path, as people write it
  std::string token;    // empty: none is asked for
  // Paths of PEM files; empty: HTTP in place of HTTPS.
  std::string certificate;
  std::string key;
};

class whip_server {
 public:
  // Listens from now on; nobody is answered before the loop runs. Loop and publishers are borrowed
  // and must outlive it. Null, with `error` saying what is wrong and what would be right: a port
  // that is taken, a certificate that can't be read, a key that is another's, no thread.
  static std::unique_ptr<whip_server> start(const whip_terms& terms, base::event_loop& loop,
                                            publishers& asked, const base::logger& log,
                                            std::string& error);
  whip_server(const whip_server&) = delete;
  whip_server& operator=(const whip_server&) = delete;
  // Asks no more; whoever waits for an answer gets 503. Holds up its thread for 0.2 s at most. May
  // come from inside a call of the publishers.
  ~whip_server();

  int port() const { return port_; }
  // Has to be called for every session that was there and isn't any more: who waits for its end is
  // told.
  void session_ended(const std::string& session);

 private:
  whip_server(base::event_loop& loop, publishers& asked, int port);

  publishers& publishers_;
  const int port_;
  base::poster poster_;
  std::unique_ptr<http_thread> http_;
};

}  // namespace zelta::core_service
