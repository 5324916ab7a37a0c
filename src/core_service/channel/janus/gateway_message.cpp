// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/gateway_message.h"

#include <utility>

#include "core_service/channel/janus/json_fields.h"

namespace zelta::core_service::janus {
namespace {

// As it may stand in a log.
std::string printable(std::string text) {
  constexpr size_t kLongest = 200;
  if (text.size() > kLongest) text.resize(kLongest);
  for (char& c : text) {
    if (c < ' ' || c > '~') c = '?';
  }
  return text;
}

void take_error(gateway_message& into, uint64_t code, const std::string& words) {
  constexpr uint64_t kUnnamed = 1;
  into.code = code != 0 ? code : kUnnamed;
  into.reason = printable(words.empty() ? "it gives no reason" : words);
}

gateway_message message_of(const Json::Value& one) {
  gateway_message made;
  made.kind = text_in(one, "janus");
  made.transaction = text_in(one, "transaction");
  made.session = number_in(one, "session_id");
  made.sender = number_in(one, "sender");
  made.id = number_in(object_in(one, "data"), "id");
  made.data = object_in(object_in(one, "plugindata"), "data");
  made.sdp_type = text_in(object_in(one, "jsep"), "type");
  made.sdp = text_in(object_in(one, "jsep"), "sdp");
  made.reason = printable(text_in(one, "reason"));
  const Json::Value& error = object_in(one, "error");
  if (made.kind == "error") take_error(made, number_in(error, "code"), text_in(error, "reason"));
  if (!text_in(made.data, "error").empty() || number_in(made.data, "error_code") != 0) {
    take_error(made, number_in(made.data, "error_code"), text_in(made.data, "error"));
  }
  return made;
}

}  // namespace

std::optional<std::vector<gateway_message>> parse_messages(const std::string& text,
                                                           std::string& error) {
  const auto parsed = parse_json(text, error);
  if (!parsed) return std::nullopt;
  std::vector<gateway_message> made;
  if (!parsed->isArray()) {
    made.push_back(message_of(*parsed));
  } else {
    for (const Json::Value& one : *parsed) made.push_back(message_of(one));
  }
  for (const gateway_message& one : made) {
    if (!one.kind.empty()) continue;
    error = "it doesn't say \"janus\"";
    return std::nullopt;
  }
  return made;
}

}  // namespace zelta::core_service::janus
