// SPDX-License-Identifier: Apache-2.0
// A VideoRoom, entered as a publisher who never publishes: such a one hears of all others.
//
// Everything on the loop's thread. Callbacks may destroy the room.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

#include "core_service/channel/janus/gateway.h"
#include "core_service/channel/janus/plugin_handle.h"
#include "core_service/channel/janus/publisher.h"

namespace zelta::core_service::janus {

// What everybody who joins says.
struct room_terms {
  std::string name;  // the channel's
  std::string key;  // the room's pin, and the token of a room that has a list of them; may be empty
};

class room {
 public:
  struct events {
    std::function<void(const std::vector<publisher>& all)> joined;
    std::function<void(const std::string& why)> refused;  // in place of it
    // Those who came, or publish something else than before.
    std::function<void(const std::vector<publisher>& some)> published;
    std::function<void(const std::string& key)> gone;
    // Somebody has put us out; there is no sense in coming again.
    std::function<void()> put_out;
    // The room is no more, or the way to it.
    std::function<void(const std::string& why)> closed;
  };

  // Joins. The gateway is borrowed.
  room(gateway& by, const room_terms& terms, events told);
  room(const room&) = delete;
  room& operator=(const room&) = delete;

  // What a subscriber says to join, without what it subscribes to; once joined.
  Json::Value subscriber() const;

 private:
  Json::Value join_request(const char* as) const;
  void join();
  void on_join(const gateway_message& reply);
  void on_told(const gateway_message& message);
  std::string why_refused(const gateway_message& reply) const;

  const room_terms terms_;
  const events events_;
  Json::Value id_;            // as the gateway's rooms are named
  bool may_be_text_ = false;  // it was tried as a number, and could be the text
  uint64_t private_id_ = 0;
  plugin_handle handle_;
};

}  // namespace zelta::core_service::janus
