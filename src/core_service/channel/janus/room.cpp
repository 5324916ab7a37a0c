// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/room.h"

#include <charconv>
#include <optional>
#include <utility>

#include "core_service/channel/janus/json_fields.h"

namespace zelta::core_service::janus {
namespace {

// The plugin's.
constexpr uint64_t kNoSuchRoom = 426;
constexpr uint64_t kMissingElement = 429;
constexpr uint64_t kInvalidElement = 430;
constexpr uint64_t kUnauthorized = 433;

constexpr const char* kName = "recorder";

std::optional<uint64_t> room_number(const std::string& name) {
  uint64_t number = 0;
  const char* const end = name.data() + name.size();
  const auto [stopped, failed] = std::from_chars(name.data(), end, number);
  if (failed != std::errc() || stopped != end || number == 0 || name.front() == '0') {
    return std::nullopt;
  }
  return number;
}

}  // namespace

// Which of both a gateway takes can't be asked. One whose rooms are texts says so to a number, so
// that the number comes first where there is one.
room::room(gateway& by, const room_terms& terms, events told)
    : terms_(terms),
      events_(std::move(told)),
      id_(terms.name),
      handle_(by, {[this] { join(); }, events_.refused,
                   [this](const gateway_message& message) { on_told(message); }}) {
  const auto number = room_number(terms_.name);
  if (!number) return;
  id_ = Json::UInt64{*number};
  may_be_text_ = true;
}

Json::Value room::join_request(const char* as) const {
  Json::Value body;
  body["request"] = "join";
  body["ptype"] = as;
  body["room"] = id_;
  if (!terms_.key.empty()) {
    body["pin"] = terms_.key;
    body["token"] = terms_.key;
  }
  return body;
}

Json::Value room::subscriber() const {
  Json::Value body = join_request("subscriber");
  body["autoupdate"] = false;
  if (private_id_ != 0) body["private_id"] = Json::UInt64{private_id_};
  return body;
}

void room::join() {
  Json::Value body = join_request("publisher");
  body["display"] = kName;
  handle_.ask(std::move(body), "", [this](const gateway_message& reply) { on_join(reply); });
}

void room::on_join(const gateway_message& reply) {
  if (reply.code == kInvalidElement && std::exchange(may_be_text_, false)) {
    id_ = terms_.name;
    return join();
  }
  if (reply.code == 0 && text_in(reply.data, "videoroom") == "joined") {
    private_id_ = number_in(reply.data, "private_id");
    const auto joined = events_.joined;
    return joined(publishers_in(reply.data));
  }
  const auto refused = events_.refused;
  refused(why_refused(reply));
}

std::string room::why_refused(const gateway_message& reply) const {
  const std::string name = "room \"" + terms_.name + "\"";
  const std::string said = " (" + reply.reason + ")";
  switch (reply.code) {
    case 0:
      return "the gateway doesn't say that " + name + " was joined: it is no VideoRoom of Janus";
    case kNoSuchRoom:
      return "the gateway has no " + name + said + ": the channel should be called like one";
    case kMissingElement:
    case kUnauthorized:
      return name + (terms_.key.empty() ? " asks for a pin" : " takes another pin") + said +
             ": the channel key should be it";
    case kInvalidElement:
      return "the gateway's rooms aren't called like \"" + terms_.name + "\"" + said +
             ": the channel should be a number from 1 on, as long as the gateway has no string_ids";
    default:
      return name + " can't be joined: " + reply.reason;
  }
}

void room::on_told(const gateway_message& message) {
  const events told = events_;
  if (message.kind == "detached") return told.closed("the gateway has let go of us");
  if (message.kind != "event") return;
  const Json::Value& data = message.data;
  if (text_in(data, "videoroom") == "destroyed") {
    return told.closed("room \"" + terms_.name + "\" is no more");
  }
  // What is told of us is "ok".
  if (text_in(data, "leaving") == "ok") return told.put_out();
  for (const char* const left : {"unpublished", "leaving", "kicked"}) {
    const std::string key = data.isMember(left) ? id_text(data[left]) : "";
    if (!key.empty()) return told.gone(key);
  }
  const auto some = publishers_in(data);
  if (!some.empty()) told.published(some);
}

}  // namespace zelta::core_service::janus
