// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/subscription.h"

#include <utility>

#include "core_service/channel/janus/json_fields.h"

namespace zelta::core_service::janus {
namespace {

constexpr uint64_t kNoSuchFeed = 428;  // the plugin's

}  // namespace

subscription::subscription(gateway& by, Json::Value join, const Json::Value& feed, events told)
    : join_(std::move(join)),
      events_(std::move(told)),
      handle_(by, {[this] {
                     handle_.ask(join_, "",
                                 [this](const gateway_message& reply) { on_join(reply); });
                   },
                   [this](const std::string& why) {
                     const auto refused = events_.refused;
                     refused(why, false);
                   },
                   [this](const gateway_message& message) { on_told(message); }}) {
  Json::Value all;
  all["feed"] = feed;
  join_["streams"].append(std::move(all));
}

void subscription::on_join(const gateway_message& reply) {
  const events told = events_;
  if (reply.code != 0) {
    return told.refused("the gateway doesn't let us subscribe: " + reply.reason,
                        reply.code == kNoSuchFeed);
  }
  if (reply.sdp_type != "offer") return told.refused("the gateway offers nothing", false);
  told.offered(reply.sdp);
}

void subscription::answer(const std::string& sdp) {
  Json::Value body;
  body["request"] = "start";
  handle_.ask(std::move(body), sdp, [this](const gateway_message& reply) {
    if (reply.code == 0) return;
    const auto over = events_.over;
    over("the gateway doesn't take our answer: " + reply.reason);
  });
}

void subscription::on_told(const gateway_message& message) {
  const auto over = events_.over;
  if (message.kind == "hangup" || message.kind == "detached") {
    return over("the gateway sends no more" +
                (message.reason.empty() ? "" : " (" + message.reason + ")"));
  }
  if (message.sdp_type == "offer") over("the gateway offers something else");
}

}  // namespace zelta::core_service::janus
