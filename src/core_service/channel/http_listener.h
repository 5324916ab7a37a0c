// SPDX-License-Identifier: Apache-2.0
// Takes connections of TCP, or of TLS over it, for an HTTP end, and bounds what they cost: their
// number, and the time that one has from a sign of its life to the next.
//
// Made and destroyed on any thread, everything else on the thread that iterates the context.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "core_service/channel/glib.h"

namespace zelta::core_service {

class http_listener {
 public:
  struct limits {
    // When so many are open and one more comes, one that isn't held is cut off: that whose last
    // sign of life is the oldest.
    size_t most_connections = 1000;
    // From the handshake's end, or from renew(), which an end that takes one request never says.
    unsigned connection_ms = 30'000;
    // From the first packet to the handshake's end, which may take a thread of GLib's.
    unsigned handshake_ms = 10'000;

    // As above, or as many connections as one in `share` of the descriptors that the process may
    // have, if these are fewer.
    static limits of_descriptors(size_t share);
  };
  // An HTTP end takes its own reference to what it keeps.
  using take_connection =
      std::function<void(GIOStream* stream, GSocketAddress* local, GSocketAddress* remote)>;

  // Binds: `address` is an IP address of the machine, empty for all of them; with port 0 one is
  // chosen. No certificate: plain TCP. Null, with `error` in words.
  static std::unique_ptr<http_listener> make(const std::string& address, int port,
                                             glib_ptr<GTlsCertificate> certificate,
                                             const limits& bounds, std::string& error);
  http_listener(const http_listener&) = delete;
  http_listener& operator=(const http_listener&) = delete;
  // Behind the last iteration of the context. Connections that somebody still holds are forgotten.
  ~http_listener();

  // Any thread.
  int port() const { return port_; }
  bool is_secure() const { return certificate_ != nullptr; }

  // The context is borrowed; it is iterated by this thread, whose default it is.
  void start(GMainContext* context, take_connection take);
  // Takes no more.
  void stop();
  // Ends what goes on: whoever reads or writes sees the end, and lets go of the connection.
  void cut_all();
  // The one that was handed over with this address: itself, while somebody holds it, since those of
  // two connections may be equal.
  void cut(const GSocketAddress* remote);
  // A request came by it, or a part of an answer went: its time begins anew.
  void renew(const GSocketAddress* remote);
  // It may last until it is let go of, which gives it its time anew. False: half of all that may be
  // open are held already, the others are for requests.
  bool hold(const GSocketAddress* remote);
  void let_go(const GSocketAddress* remote);
  // What it comes by, below TLS: for whoever looks whether a client has gone. Borrowed; null when
  // it has been forgotten.
  GSocket* socket_of(const GSocketAddress* remote);
  // Those that somebody still holds.
  size_t count() const { return open_.size(); }

 private:
  struct connection;
  class departures;
  http_listener(glib_ptr<GSocket> socket, int port, glib_ptr<GTlsCertificate> certificate,
                const limits& bounds);

  void accept_later();
  bool accept_one();
  void take_in(glib_ptr<GSocket> socket);
  void await_hello(connection& one, GIOStream* stream);
  void hand_over(connection& one, GIOStream* stream);
  std::list<connection>::iterator find(const GSocketAddress* remote);
  void cut_oldest();
  source_ptr after(unsigned ms, GSourceFunc work, void* context) const;
  static void cut_off(connection& one);
  static gboolean on_acceptable(GSocket* socket, GIOCondition condition, gpointer self);
  static gboolean on_retry(gpointer self);
  static gboolean on_hello(GSocket* socket, GIOCondition condition, gpointer one);
  static gboolean on_time_over(gpointer one);
  static void on_handshaken(GObject* stream, GAsyncResult* result, gpointer one);
  void forget(const std::vector<connection*>& gone);

  const glib_ptr<GSocket> socket_;
  const int port_;
  const glib_ptr<GTlsCertificate> certificate_;
  const limits limits_;
  GMainContext* context_ = nullptr;
  take_connection take_;
  bool stopped_ = false;
  source_ptr accepting_;
  source_ptr retry_;
  std::list<connection> open_;  // in the order of their last signs of life
  std::shared_ptr<departures> departures_;
};

}  // namespace zelta::core_service
