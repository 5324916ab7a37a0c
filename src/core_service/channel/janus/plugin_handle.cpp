// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/plugin_handle.h"

#include <utility>

namespace zelta::core_service::janus {
namespace {

constexpr const char* kPlugin = "janus.plugin.videoroom";

void detach(gateway& from, uint64_t handle) {
  Json::Value request;
  request["janus"] = "detach";
  from.ask("detach", handle, std::move(request), [](const gateway_message&) {});
}

}  // namespace

plugin_handle::plugin_handle(gateway& by, events told)
    : gateway_(by), events_(std::move(told)), session_(by.session()) {
  Json::Value request;
  request["janus"] = "attach";
  request["plugin"] = kPlugin;
  gateway_.ask("attach", 0, std::move(request),
               [this, &from = by, alive = std::weak_ptr<int>(alive_)](const auto& reply) {
                 if (!alive.expired()) return on_attached(reply);
                 if (reply.id != 0) detach(from, reply.id);
               });
}

plugin_handle::~plugin_handle() {
  if (number_ == 0 || session_ != gateway_.session()) return;
  gateway_.forget(number_);
  if (gateway_.is_ready()) detach(gateway_, number_);
}

void plugin_handle::on_attached(const gateway_message& reply) {
  if (reply.code != 0 || reply.id == 0) {
    const auto refused = events_.refused;
    return refused("the gateway attaches nobody to its VideoRoom plugin: " +
                   (reply.code != 0 ? reply.reason : "it gives no number"));
  }
  number_ = reply.id;
  gateway_.listen(number_,
                  [told = events_.told, alive = std::weak_ptr<int>(alive_)](const auto& message) {
                    if (!alive.expired()) told(message);
                  });
  const auto attached = events_.attached;
  attached();
}

void plugin_handle::ask(Json::Value body, const std::string& answer, gateway::on_message reply) {
  Json::Value request;
  request["janus"] = "message";
  request["body"] = std::move(body);
  if (!answer.empty()) {
    request["jsep"]["type"] = "answer";
    request["jsep"]["sdp"] = answer;
  }
  gateway_.ask("message", number_, std::move(request),
               [reply = std::move(reply), alive = std::weak_ptr<int>(alive_)](const auto& message) {
                 if (!alive.expired()) reply(message);
               });
}

}  // namespace zelta::core_service::janus
