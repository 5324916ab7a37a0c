// SPDX-License-Identifier: Apache-2.0
// What a Janus gateway says, with every field checked. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

namespace zelta::core_service::janus {

// What isn't said is empty, or 0.
struct gateway_message {
  std::string kind;         // "success", "event", "hangup", …
  std::string transaction;  // of the request that it answers
  uint64_t session = 0;
  uint64_t sender = 0;  // the handle that it is about
  uint64_t id = 0;      // what was created
  Json::Value data;     // the plugin's, an object
  std::string sdp_type;
  std::string sdp;
  // What went wrong: the gateway's number for it, or the plugin's, and words.
  uint64_t code = 0;
  std::string reason;
};

// One, or a list of them. None, with `error` in words, when the text is nothing of the kind.
std::optional<std::vector<gateway_message>> parse_messages(const std::string& text,
                                                           std::string& error);

}  // namespace zelta::core_service::janus
