// SPDX-License-Identifier: Apache-2.0
#include "level_visitors.h"

#include <algorithm>
#include <map>
#include <utility>

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
    message_ptr message;
    gulong gone_id = 0;
  };
  level_worker* worker;
  std::map<uint64_t, visitor> visitors;

  message_ptr take(uint64_t id) {
    const auto found = visitors.find(id);
    if (found == visitors.end()) return nullptr;
    visitor one = std::move(found->second);
    visitors.erase(found);
    g_signal_handler_disconnect(one.message.get(), one.gone_id);
    return std::move(one.message);
  }
  // Those whose connection has ended don't wait.
  static void on_gone(SoupServerMessage* message, gpointer self) {
    auto& room = *static_cast<waiting_room*>(self);
    const auto found =
        std::find_if(room.visitors.begin(), room.visitors.end(),
                     [message](const auto& one) { return one.second.message.get() == message; });
    if (found == room.visitors.end()) return;
    const uint64_t id = found->first;
    room.worker->forget(id);
    room.take(id);
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

level_visitors::level_visitors(std::string folder, level_cache cache)
    : worker_(std::make_unique<level_worker>(std::move(folder), std::move(cache))),
      room_(std::make_shared<waiting_room>(waiting_room{worker_.get(), {}})) {}

level_visitors::~level_visitors() {
  while (!room_->visitors.empty()) room_->take(room_->visitors.begin()->first);
  worker_.reset();
}

// The worker's thread hands the answer to this one, by its loop: it can't come before this returns.
void level_visitors::wait(SoupServerMessage* message, const std::string& name) {
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
  waiting_room::visitor& one = room_->visitors[id];
  one.message.reset(SOUP_SERVER_MESSAGE(g_object_ref(message)));
  one.gone_id =
      g_signal_connect(message, "finished", G_CALLBACK(waiting_room::on_gone), room_.get());
  soup_server_message_pause(message);
}

}  // namespace zelta::view
