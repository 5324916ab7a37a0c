// SPDX-License-Identifier: Apache-2.0
// Janus by WebSocket (RFC 6455), as its subprotocol "janus-protocol" has it.
#include <utility>

#include <libsoup/soup.h>

#include "core_service/channel/glib_thread.h"
#include "core_service/channel/janus/gateway_link.h"

namespace zelta::core_service::janus {
namespace {

constexpr const char* kProtocol = "janus-protocol";

// All on the thread, but for what gateway_link has.
class web_socket_link : public gateway_link {
 public:
  web_socket_link(gateway_place at, events told)
      : at_(std::move(at)), told_(std::move(told)), stop_(g_cancellable_new()) {
    thread_.post([this] { connect(); });
  }
  ~web_socket_link() override {
    thread_.end([this] { close(); });
  }
  web_socket_link(const web_socket_link&) = delete;
  web_socket_link& operator=(const web_socket_link&) = delete;

  void send(const std::string& /*path*/, const std::string& text) override {
    thread_.post([this, text] {
      if (is_open()) soup_websocket_connection_send_text(connection_.get(), text.c_str());
    });
  }
  void poll(uint64_t /*session*/) override {}

 private:
  void connect() {
    // A gateway is reached as the machine's own routes have it.
    session_.reset(soup_session_new_with_options("proxy-resolver", nullptr, nullptr));
    const glib_ptr<SoupMessage> message(soup_message_new("GET", at_.url.c_str()));
    if (!message) return fail(at_.url + " is no address that can be connected to");
    char protocol[] = "janus-protocol";
    char* protocols[] = {protocol, nullptr};
    connecting_ = true;
    soup_session_websocket_connect_async(
        session_.get(), message.get(), nullptr, protocols, G_PRIORITY_DEFAULT, stop_.get(),
        [](GObject* /*session*/, GAsyncResult* result, gpointer self) {
          static_cast<web_socket_link*>(self)->on_connected(result);
        },
        this);
  }

  void on_connected(GAsyncResult* result) {
    connecting_ = false;
    glib_error error;
    connection_.reset(soup_session_websocket_connect_finish(session_.get(), result, error.out()));
    if (!connection_) return fail("can't be reached by WebSocket: " + error.text());
    const char* const spoken = soup_websocket_connection_get_protocol(connection_.get());
    if (spoken == nullptr || spoken != std::string(kProtocol)) {
      return fail(std::string("doesn't speak ") + kProtocol + " by WebSocket");
    }
    soup_websocket_connection_set_max_incoming_payload_size(connection_.get(), kMostMessageBytes);
    g_signal_connect(connection_.get(), "message",
                     G_CALLBACK(+[](SoupWebsocketConnection* /*from*/, gint /*type*/, GBytes* bytes,
                                    gpointer self) {
                       gsize size = 0;
                       const void* const text = g_bytes_get_data(bytes, &size);
                       static_cast<web_socket_link*>(self)->told_.came(
                           size > 0 ? std::string(static_cast<const char*>(text), size) : "");
                     }),
                     this);
    g_signal_connect(
        connection_.get(), "error",
        G_CALLBACK(+[](SoupWebsocketConnection* /*from*/, GError* what, gpointer self) {
          static_cast<web_socket_link*>(self)->fail(std::string("broke off: ") + what->message);
        }),
        this);
    g_signal_connect(connection_.get(), "closed",
                     G_CALLBACK(+[](SoupWebsocketConnection* /*from*/, gpointer self) {
                       static_cast<web_socket_link*>(self)->fail("has closed the connection");
                     }),
                     this);
    told_.opened();
  }

  bool is_open() const {
    return connection_ &&
           soup_websocket_connection_get_state(connection_.get()) == SOUP_WEBSOCKET_STATE_OPEN;
  }

  void fail(const std::string& why) {
    if (!std::exchange(over_, true)) told_.closed(why);
  }

  void close() {
    over_ = true;
    g_cancellable_cancel(stop_.get());
    if (is_open()) {
      soup_websocket_connection_close(connection_.get(), SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
      thread_.iterate_until(
          [this] {
            return soup_websocket_connection_get_state(connection_.get()) ==
                   SOUP_WEBSOCKET_STATE_CLOSED;
          },
          kLastWordsMs);
    }
    thread_.iterate_until([this] { return !connecting_; }, kLetGoMs);
    if (connection_) g_signal_handlers_disconnect_by_data(connection_.get(), this);
    connection_.reset();
    session_.reset();
  }

  const gateway_place at_;
  const events told_;
  const glib_ptr<GCancellable> stop_;
  glib_ptr<SoupSession> session_;
  glib_ptr<SoupWebsocketConnection> connection_;
  bool connecting_ = false;
  bool over_ = false;
  glib_thread thread_;
};

}  // namespace

std::unique_ptr<gateway_link> make_web_socket_link(const gateway_place& at,
                                                   gateway_link::events told) {
  return std::make_unique<web_socket_link>(at, std::move(told));
}

}  // namespace zelta::core_service::janus
