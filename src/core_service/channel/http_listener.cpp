// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/http_listener.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

namespace zelta::core_service {
namespace {

constexpr int kBacklog = 128;
// A shortage of descriptors is over when somebody leaves, which nobody tells.
constexpr unsigned kRetryMs = 200;

GSocketFamily family_of(GInetAddress* address) {
  return g_inet_address_get_family(address);
}

// Null, with `error`.
glib_ptr<GSocket> listen_at(GInetAddress* address, int port, std::string& error) {
  glib_error fault;
  glib_ptr<GSocket> socket(
      g_socket_new(family_of(address), G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, fault.out()));
  const glib_ptr<GSocketAddress> place(
      g_inet_socket_address_new(address, static_cast<guint16>(port)));
  bool listens = socket != nullptr;
  if (listens) {
    g_socket_set_blocking(socket.get(), FALSE);
    g_socket_set_listen_backlog(socket.get(), kBacklog);
    // "::" is every address, those of IPv4 too.
    if (family_of(address) == G_SOCKET_FAMILY_IPV6) {
      g_socket_set_option(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, 0, nullptr);
    }
    listens = g_socket_bind(socket.get(), place.get(), TRUE, fault.out()) != FALSE &&
              g_socket_listen(socket.get(), fault.out()) != FALSE;
  }
  if (listens) return socket;
  const text_ptr text(g_inet_address_to_string(address));
  error = std::string("can't listen at address ") + text.get() + ", TCP port " +
          std::to_string(port) + ": " + fault.text();
  return nullptr;
}

int port_of(GSocket* socket) {
  const glib_ptr<GSocketAddress> place(g_socket_get_local_address(socket, nullptr));
  return place ? g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(place.get())) : 0;
}

}  // namespace

struct http_listener::connection {
  http_listener* owner;
  glib_ptr<GSocket> socket;
  glib_ptr<GSocketAddress> remote;
  glib_ptr<GIOStream> shaking;  // TLS over it, until the handshake is done
  source_ptr time_over;
  source_ptr hello;
  bool is_cut = false;
  bool is_held = false;
};

// Hears that a stream is gone from whoever let go of it last, on that one's thread: it is GLib's
// behind a handshake. Tells the listener on the thread of the context.
class http_listener::departures {
 public:
  departures(GMainContext* context, http_listener& listener)
      : context_(g_main_context_ref(context)), wake_(g_source_new(&kFunctions, sizeof(GSource))) {
    g_source_set_callback(wake_.get(), tell, &listener, nullptr);
    g_source_attach(wake_.get(), context_.get());
  }

  static void await(const std::shared_ptr<departures>& to, connection& one, GObject* stream) {
    auto* const note = new notice;
    note->one = &one;
    note->to = to;
    // GLib hands it on by locks of its own, which those who look for races don't see.
    note->is_written.store(true, std::memory_order_release);
    g_object_weak_ref(stream, on_gone, note);
  }
  // Behind the last iteration of the context: the listener hears nothing more.
  void close() {
    const std::lock_guard<std::mutex> hold(lock_);
    wake_.reset();
  }

 private:
  struct notice {
    std::atomic<bool> is_written{false};
    connection* one = nullptr;
    std::shared_ptr<departures> to;
  };

  static void on_gone(gpointer data, GObject* /*stream*/) {
    const std::unique_ptr<notice> note(static_cast<notice*>(data));
    if (note->is_written.load(std::memory_order_acquire)) note->to->add(note->one);
  }

  void add(connection* one) {
    const std::lock_guard<std::mutex> hold(lock_);
    if (!wake_) return;
    gone_.push_back(one);
    g_source_set_ready_time(wake_.get(), 0);
  }

  std::vector<connection*> take() {
    const std::lock_guard<std::mutex> hold(lock_);
    g_source_set_ready_time(wake_.get(), -1);
    return std::exchange(gone_, {});
  }

  static gboolean tell(gpointer data) {
    auto& listener = *static_cast<http_listener*>(data);
    listener.forget(listener.departures_->take());
    return G_SOURCE_CONTINUE;
  }

  static gboolean dispatch(GSource* /*source*/, GSourceFunc callback, gpointer data) {
    return callback(data);
  }
  inline static GSourceFuncs kFunctions{nullptr, nullptr, dispatch, nullptr, nullptr, nullptr};

  const context_ptr context_;
  std::mutex lock_;
  std::vector<connection*> gone_;
  source_ptr wake_;
};

http_listener::limits http_listener::limits::of_descriptors(size_t share) {
  limits bounds;
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0 &&
      descriptors.rlim_cur / share < bounds.most_connections) {
    bounds.most_connections = static_cast<size_t>(descriptors.rlim_cur / share);
  }
  return bounds;
}

std::unique_ptr<http_listener> http_listener::make(const std::string& address, int port,
                                                   glib_ptr<GTlsCertificate> certificate,
                                                   const limits& bounds, std::string& error) {
  if (port < 0 || port > 65535) {
    error = "TCP port " + std::to_string(port) + " should be 0 to 65535";
    return nullptr;
  }
  const glib_ptr<GInetAddress> given(address.empty()
                                         ? g_inet_address_new_any(G_SOCKET_FAMILY_IPV6)
                                         : g_inet_address_new_from_string(address.c_str()));
  if (!given) {
    error = "address \"" + address + "\" should be an IP address of this machine";
    return nullptr;
  }
  glib_ptr<GSocket> socket = listen_at(given.get(), port, error);
  if (!socket && address.empty()) {
    // A machine may have no IPv6.
    const glib_ptr<GInetAddress> any(g_inet_address_new_any(G_SOCKET_FAMILY_IPV4));
    socket = listen_at(any.get(), port, error);
  }
  if (!socket) return nullptr;
  const int got = port_of(socket.get());
  error.clear();
  return std::unique_ptr<http_listener>(
      new http_listener(std::move(socket), got, std::move(certificate), bounds));
}

http_listener::http_listener(glib_ptr<GSocket> socket, int port,
                             glib_ptr<GTlsCertificate> certificate, const limits& bounds)
    : socket_(std::move(socket)),
      port_(port),
      certificate_(std::move(certificate)),
      limits_(bounds) {}

http_listener::~http_listener() {
  if (departures_) departures_->close();
}

void http_listener::start(GMainContext* context, take_connection take) {
  context_ = context;
  take_ = std::move(take);
  departures_ = std::make_shared<departures>(context, *this);
  accept_later();
}

void http_listener::stop() {
  stopped_ = true;
  accepting_.reset();
  retry_.reset();
  g_socket_close(socket_.get(), nullptr);
}

void http_listener::cut_all() {
  for (connection& one : open_) cut_off(one);
}

void http_listener::cut(const GSocketAddress* remote) {
  const auto found = find(remote);
  if (found != open_.end()) cut_off(*found);
}

void http_listener::renew(const GSocketAddress* remote) {
  const auto found = find(remote);
  if (found == open_.end() || found->is_held || found->is_cut) return;
  found->time_over = after(limits_.connection_ms, on_time_over, &*found);
  open_.splice(open_.end(), open_, found);
}

bool http_listener::hold(const GSocketAddress* remote) {
  const auto held =
      std::count_if(open_.begin(), open_.end(), [](const connection& one) { return one.is_held; });
  const auto found = find(remote);
  if (found == open_.end() || static_cast<size_t>(held) >= limits_.most_connections / 2)
    return false;
  found->is_held = true;
  found->time_over.reset();
  return true;
}

void http_listener::let_go(const GSocketAddress* remote) {
  const auto found = find(remote);
  if (found != open_.end() && std::exchange(found->is_held, false)) renew(remote);
}

GSocket* http_listener::socket_of(const GSocketAddress* remote) {
  const auto found = find(remote);
  return found != open_.end() ? found->socket.get() : nullptr;
}

std::list<http_listener::connection>::iterator http_listener::find(const GSocketAddress* remote) {
  return std::find_if(open_.begin(), open_.end(),
                      [remote](const connection& one) { return one.remote.get() == remote; });
}

// Not closed, which is for whoever reads from it: they see its end.
void http_listener::cut_off(connection& one) {
  if (std::exchange(one.is_cut, true)) return;
  one.time_over.reset();
  g_socket_shutdown(one.socket.get(), TRUE, TRUE, nullptr);
}

void http_listener::cut_oldest() {
  for (connection& one : open_) {
    if (!one.is_cut && !one.is_held) return cut_off(one);
  }
}

source_ptr http_listener::after(unsigned ms, GSourceFunc work, void* context) const {
  source_ptr timer(g_timeout_source_new(ms));
  g_source_set_callback(timer.get(), work, context, nullptr);
  g_source_attach(timer.get(), context_);
  return timer;
}

// ---- Taking them ---------------------------------------------------------------------------

void http_listener::accept_later() {
  retry_.reset();
  if (stopped_ || accepting_) return;
  accepting_.reset(g_socket_create_source(socket_.get(), G_IO_IN, nullptr));
  g_source_set_callback(accepting_.get(), G_SOURCE_FUNC(on_acceptable), this, nullptr);
  g_source_attach(accepting_.get(), context_);
}

gboolean http_listener::on_acceptable(GSocket* /*socket*/, GIOCondition /*condition*/,
                                      gpointer self) {
  auto& listener = *static_cast<http_listener*>(self);
  if (listener.accept_one()) return G_SOURCE_CONTINUE;
  // What waits would call again at once.
  listener.accepting_.reset();
  return G_SOURCE_REMOVE;
}

// False: accept_later() has to be called when there is room.
bool http_listener::accept_one() {
  if (open_.size() >= limits_.most_connections) {
    cut_oldest();
    return false;
  }
  glib_error fault;
  glib_ptr<GSocket> socket(g_socket_accept(socket_.get(), nullptr, fault.out()));
  if (socket) {
    take_in(std::move(socket));
    return true;
  }
  if (fault.is(G_IO_ERROR_WOULD_BLOCK)) return true;
  retry_ = after(kRetryMs, on_retry, this);
  return false;
}

gboolean http_listener::on_retry(gpointer self) {
  static_cast<http_listener*>(self)->accept_later();
  return G_SOURCE_REMOVE;
}

void http_listener::take_in(glib_ptr<GSocket> socket) {
  glib_ptr<GSocketAddress> remote(g_socket_get_remote_address(socket.get(), nullptr));
  // It has gone again.
  if (!remote) return;
  g_socket_set_blocking(socket.get(), FALSE);
  // The end of an answer would wait for the acknowledgement of its beginning.
  g_socket_set_option(socket.get(), IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
  const glib_ptr<GIOStream> stream(
      G_IO_STREAM(g_socket_connection_factory_create_connection(socket.get())));
  open_.push_back({this, std::move(socket), std::move(remote), {}, {}, {}});
  connection& one = open_.back();
  // Its descriptor is let go of when the last who holds it does.
  departures::await(departures_, one, G_OBJECT(stream.get()));
  if (certificate_) {
    await_hello(one, stream.get());
  } else {
    hand_over(one, stream.get());
  }
}

// A handshake takes a thread of GLib's, which somebody who says nothing isn't worth.
void http_listener::await_hello(connection& one, GIOStream* stream) {
  one.shaking.reset(g_tls_server_connection_new(stream, certificate_.get(), nullptr));
  if (!one.shaking) return;
  one.time_over = after(limits_.handshake_ms, on_time_over, &one);
  one.hello.reset(g_socket_create_source(one.socket.get(), G_IO_IN, nullptr));
  g_source_set_callback(one.hello.get(), G_SOURCE_FUNC(on_hello), &one, nullptr);
  g_source_attach(one.hello.get(), context_);
}

gboolean http_listener::on_hello(GSocket* /*socket*/, GIOCondition /*condition*/, gpointer data) {
  auto& one = *static_cast<connection*>(data);
  one.hello.reset();
  g_tls_connection_handshake_async(G_TLS_CONNECTION(one.shaking.get()), G_PRIORITY_DEFAULT, nullptr,
                                   on_handshaken, &one);
  return G_SOURCE_REMOVE;
}

void http_listener::on_handshaken(GObject* shaken, GAsyncResult* result, gpointer data) {
  auto& one = *static_cast<connection*>(data);
  // With the last reference goes the connection.
  const glib_ptr<GIOStream> stream = std::move(one.shaking);
  const bool done =
      g_tls_connection_handshake_finish(G_TLS_CONNECTION(shaken), result, nullptr) != FALSE;
  if (done && !one.is_cut) one.owner->hand_over(one, stream.get());
}

void http_listener::hand_over(connection& one, GIOStream* stream) {
  one.time_over = after(limits_.connection_ms, on_time_over, &one);
  const glib_ptr<GSocketAddress> local(g_socket_get_local_address(one.socket.get(), nullptr));
  if (local) take_(stream, local.get(), one.remote.get());
}

gboolean http_listener::on_time_over(gpointer one) {
  cut_off(*static_cast<connection*>(one));
  return G_SOURCE_REMOVE;
}

void http_listener::forget(const std::vector<connection*>& gone) {
  open_.remove_if([&gone](const connection& one) {
    return std::find(gone.begin(), gone.end(), &one) != gone.end();
  });
  accept_later();
}

}  // namespace zelta::core_service
