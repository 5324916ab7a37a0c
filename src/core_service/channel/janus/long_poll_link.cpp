// SPDX-License-Identifier: Apache-2.0
// Janus by HTTP: a request is a POST, and events are what a GET waits for.
#include <utility>
#include <vector>

#include <libsoup/soup.h>

#include "core_service/channel/glib_thread.h"
#include "core_service/channel/janus/gateway_link.h"

namespace zelta::core_service::janus {
namespace {

// Events that come together.
constexpr const char* kMostEvents = "10";

// All on the thread, but for what gateway_link has.
class long_poll_link : public gateway_link {
 public:
  long_poll_link(gateway_place at, events told)
      : at_(std::move(at)), told_(std::move(told)), stop_(g_cancellable_new()) {
    thread_.post([this] {
      // A gateway is reached as the machine's own routes have it. A poll takes one connection, and
      // requests the other, one after the other.
      session_.reset(soup_session_new_with_options("proxy-resolver", nullptr, "max-conns-per-host",
                                                   2, nullptr));
      told_.opened();
    });
  }
  ~long_poll_link() override {
    thread_.end([this] { close(); });
  }
  long_poll_link(const long_poll_link&) = delete;
  long_poll_link& operator=(const long_poll_link&) = delete;

  void send(const std::string& path, const std::string& text) override {
    thread_.post([this, path, text] {
      const bytes_ptr body(g_bytes_new(text.data(), text.size()));
      begin("POST", path, body.get());
    });
  }
  void poll(uint64_t session) override {
    thread_.post([this, session] {
      begin("GET", "/" + std::to_string(session) + "?maxev=" + kMostEvents, nullptr);
    });
  }

 private:
  // Lives until its last callback.
  struct request {
    long_poll_link* by;
    bool is_poll;
    glib_ptr<SoupMessage> message;
    glib_ptr<GInputStream> stream;
    std::vector<char> body;
  };

  void begin(const char* method, const std::string& path, GBytes* body) {
    if (over_) return;
    glib_ptr<SoupMessage> message(soup_message_new(method, (at_.url + path).c_str()));
    if (!message) return fail(at_.url + " is no address that can be connected to");
    // What the channel is entered by goes nowhere else.
    soup_message_add_flags(message.get(), SOUP_MESSAGE_NO_REDIRECT);
    // One that was kept open may have been closed by now, which a request would find out too late.
    soup_message_headers_replace(soup_message_get_request_headers(message.get()), "Connection",
                                 "close");
    if (body != nullptr) {
      soup_message_set_request_body_from_bytes(message.get(), "application/json", body);
      ++sending_;
    }
    ++open_;
    auto* const one = new request{this, body == nullptr, std::move(message), nullptr, {}};
    soup_session_send_async(session_.get(), one->message.get(), G_PRIORITY_DEFAULT, stop_.get(),
                            on_headers, one);
  }

  static void on_headers(GObject* /*session*/, GAsyncResult* result, gpointer context) {
    std::unique_ptr<request> one(static_cast<request*>(context));
    long_poll_link* const self = one->by;
    glib_error error;
    one->stream.reset(soup_session_send_finish(self->session_.get(), result, error.out()));
    if (!one->stream) return self->finish(*one, "can't be reached: " + error.text());
    const guint status = soup_message_get_status(one->message.get());
    if (status != SOUP_STATUS_OK) {
      return self->finish(*one, "answers with HTTP status " + std::to_string(status) +
                                    ": the path should be the gateway's, such as /janus");
    }
    one->body.resize(kMostMessageBytes + 1);
    GInputStream* const from = one->stream.get();
    char* const into = one->body.data();
    const gsize room = one->body.size();
    g_input_stream_read_all_async(from, into, room, G_PRIORITY_DEFAULT, self->stop_.get(), on_body,
                                  one.release());
  }

  static void on_body(GObject* stream, GAsyncResult* result, gpointer context) {
    const std::unique_ptr<request> one(static_cast<request*>(context));
    long_poll_link* const self = one->by;
    glib_error error;
    gsize size = 0;
    if (g_input_stream_read_all_finish(G_INPUT_STREAM(stream), result, &size, error.out()) ==
        FALSE) {
      return self->finish(*one, "broke off: " + error.text());
    }
    if (size > kMostMessageBytes) {
      return self->finish(*one, "says more than " + std::to_string(kMostMessageBytes) + " bytes");
    }
    if (!self->over_) {
      self->told_.came(std::string(one->body.data(), size));
      if (one->is_poll) self->told_.polled();
    }
    self->finish(*one, "");
  }

  void finish(const request& one, const std::string& failure) {
    --open_;
    if (!one.is_poll) --sending_;
    if (!failure.empty()) fail(failure);
  }

  void fail(const std::string& why) {
    if (!std::exchange(over_, true)) told_.closed(why);
  }

  void close() {
    const bool failed = std::exchange(over_, true);
    if (!failed) thread_.iterate_until([this] { return sending_ == 0; }, kLastWordsMs);
    g_cancellable_cancel(stop_.get());
    thread_.iterate_until([this] { return open_ == 0; }, kLetGoMs);
    session_.reset();
  }

  const gateway_place at_;
  const events told_;
  const glib_ptr<GCancellable> stop_;
  glib_ptr<SoupSession> session_;
  size_t open_ = 0;
  size_t sending_ = 0;  // of them; the others are polls
  bool over_ = false;
  glib_thread thread_;
};

}  // namespace

std::unique_ptr<gateway_link> make_long_poll_link(const gateway_place& at,
                                                  gateway_link::events told) {
  return std::make_unique<long_poll_link>(at, std::move(told));
}

}  // namespace zelta::core_service::janus
