// SPDX-License-Identifier: Apache-2.0
// An attachment to the gateway's VideoRoom plugin: whoever joins a room or subscribes needs one.
//
// Everything on the loop's thread. Callbacks may destroy the handle.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <json/json.h>

#include "core_service/channel/janus/gateway.h"

namespace zelta::core_service::janus {

class plugin_handle {
 public:
  struct events {
    std::function<void()> attached;
    std::function<void(const std::string& why)> refused;  // in place of it
    gateway::on_message told;
  };

  // Attaches. The gateway is borrowed.
  plugin_handle(gateway& by, events told);
  plugin_handle(const plugin_handle&) = delete;
  plugin_handle& operator=(const plugin_handle&) = delete;
  // Detaches, if the session still has it.
  ~plugin_handle();

  // Once attached. An empty `answer` isn't sent.
  void ask(Json::Value body, const std::string& answer, gateway::on_message reply);

 private:
  void on_attached(const gateway_message& reply);

  gateway& gateway_;
  const events events_;
  const uint64_t session_;
  uint64_t number_ = 0;
  const std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace zelta::core_service::janus
