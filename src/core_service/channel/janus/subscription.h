// SPDX-License-Identifier: Apache-2.0
// All that one publisher of a VideoRoom sends, asked of the gateway: it offers, and is answered.
//
// Everything on the loop's thread. Callbacks may destroy the subscription.
#pragma once

#include <functional>
#include <string>

#include <json/json.h>

#include "core_service/channel/janus/gateway.h"
#include "core_service/channel/janus/plugin_handle.h"

namespace zelta::core_service::janus {

class subscription {
 public:
  struct events {
    std::function<void(const std::string& sdp)> offered;
    // In place of it. `gone`: the publisher isn't there any more.
    std::function<void(const std::string& why, bool gone)> refused;
    // Nothing of it comes any more, or something else is offered; another subscription may help.
    std::function<void(const std::string& why)> over;
  };

  // `join` is of room::subscriber(). The gateway is borrowed.
  subscription(gateway& by, Json::Value join, const Json::Value& feed, events told);
  subscription(const subscription&) = delete;
  subscription& operator=(const subscription&) = delete;

  void answer(const std::string& sdp);

 private:
  void on_join(const gateway_message& reply);
  void on_told(const gateway_message& message);

  Json::Value join_;
  const events events_;
  plugin_handle handle_;
};

}  // namespace zelta::core_service::janus
