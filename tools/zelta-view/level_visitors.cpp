// SPDX-License-Identifier: Apache-2.0
#include "level_visitors.h"

#include <cerrno>
#include <map>
#include <utility>

#include <sys/socket.h>

#include "core_service/channel/glib.h"
#include "digest.h"
#include "http_reply.h"
#include "session_json.h"

namespace zelta::view {
namespace {

using message_ptr = core_service::glib_ptr<SoupServerMessage>;

std::string levels_json(const std::optional<std::string>& levels) {
  Json::Value made(Json::objectValue);
  if (levels) made["levels"] = base64_of(*levels);
  return text_of(made);
}

}  // namespace

// Those who wait for volumes, by what the worker knows them by. The server's thread makes and ends
// it, and alone touches messages.
struct level_visitors::waiting_room {
  struct visitor {
    waiting_room* room = nullptr;
    uint64_t id = 0;
    message_ptr message;
    core_service::source_ptr gone;
  };
  level_worker* worker;
  core_service::http_listener& by;
  std::map<uint64_t, visitor> visitors;

  void let_in(uint64_t id, SoupServerMessage* message) {
    visitor& one = visitors[id];
    one.room = this;
    one.id = id;
    one.message.reset(SOUP_SERVER_MESSAGE(g_object_ref(message)));
    GSocket* const socket = by.socket_of(soup_server_message_get_remote_address(message));
    if (socket == nullptr) return;
    one.gone.reset(g_socket_create_source(socket, G_IO_IN, nullptr));
    g_source_set_callback(one.gone.get(), G_SOURCE_FUNC(on_readable), &one, nullptr);
    g_source_attach(one.gone.get(), nullptr);
  }
  message_ptr take(uint64_t id) {
    const auto found = visitors.find(id);
    if (found == visitors.end()) return nullptr;
    message_ptr message = std::move(found->second.message);
    visitors.erase(found);
    by.let_go(soup_server_message_get_remote_address(message.get()));
    return message;
  }
  // libsoup doesn't look at the connection of a message that is paused.
  static gboolean on_readable(GSocket* socket, GIOCondition /*condition*/, gpointer data) {
    const visitor& one = *static_cast<visitor*>(data);
    char byte = 0;
    const ssize_t got = recv(g_socket_get_fd(socket), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    // Somebody who asks on already hasn't gone.
    if (got > 0) return G_SOURCE_REMOVE;
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return G_SOURCE_CONTINUE;
    one.room->worker->forget(one.id);
    const message_ptr message = one.room->take(one.id);
    // What is written shows libsoup the end of the connection.
    soup_server_message_set_status(message.get(), SOUP_STATUS_SERVICE_UNAVAILABLE, nullptr);
    soup_server_message_unpause(message.get());
    return G_SOURCE_REMOVE;
  }
};

// An answer on its way from the worker's thread.
struct level_visitors::measured {
  std::shared_ptr<waiting_room> room;
  uint64_t id;
  std::string json;

  void give() const {
    const message_ptr message = room->take(id);
    if (!message) return;
    reply(message.get(), 200, kJson, json);
    soup_server_message_unpause(message.get());
  }
};

level_visitors::level_visitors(std::string folder, level_cache cache,
                               core_service::http_listener& by)
    : worker_(std::make_unique<level_worker>(std::move(folder), std::move(cache))),
      room_(std::make_shared<waiting_room>(waiting_room{worker_.get(), by, {}})) {}

level_visitors::~level_visitors() {
  while (!room_->visitors.empty()) room_->take(room_->visitors.begin()->first);
  worker_.reset();
}

// The worker's thread hands the answer to this one, by its loop: it can't come before this returns.
void level_visitors::wait(SoupServerMessage* message, const std::string& name) {
  if (!room_->by.hold(soup_server_message_get_remote_address(message))) {
    set_header(message, "Retry-After", "30");
    return reply(message, 503, kText, "too many wait for volumes: try again later\n");
  }
  const uint64_t id =
      worker_->measure(name, [room = room_](uint64_t of, const std::optional<std::string>& levels) {
        auto made = std::make_unique<measured>(measured{room, of, levels_json(levels)});
        g_idle_add_full(
            G_PRIORITY_DEFAULT,
            [](gpointer one) -> gboolean {
              static_cast<measured*>(one)->give();
              return G_SOURCE_REMOVE;
            },
            made.release(), [](gpointer one) { delete static_cast<measured*>(one); });
      });
  room_->let_in(id, message);
  soup_server_message_pause(message);
}

}  // namespace zelta::view
