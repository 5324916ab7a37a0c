// SPDX-License-Identifier: Apache-2.0
// What a gateway may say, whose every field may be anything.
#include "core_service/channel/janus/gateway_message.h"
#include "core_service/channel/janus/publisher.h"
#include "core_service/channel/user_id.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service;

void check(const std::string& text) {
  std::string error;
  const auto messages = janus::parse_messages(text, error);
  require(messages.has_value() == error.empty(), "an error without a word, or a word without one");
  if (!messages) return;
  for (const janus::gateway_message& one : *messages) {
    require(!one.kind.empty(), "a message that says nothing");
    require(one.data.isNull() || one.data.isObject(), "data that is no object");
    for (const char c : one.reason) require(c >= ' ' && c <= '~', "a reason that isn't printable");
    for (const janus::publisher& who : janus::publishers_in(one.data)) {
      require(who.uid != 0 && is_user_name(who.key), "a publisher nobody can name");
    }
  }
}

}  // namespace

std::vector<std::string> seeds() {
  return {
      R"({"janus": "ack", "session_id": 1, "transaction": "r1"})",
      R"([{"janus": "error", "error": {"code": 458, "reason": "No such session"}}])",
      R"({"janus": "event", "sender": 7, "transaction": "r2", "plugindata": {"data": {
          "videoroom": "joined", "private_id": 9, "publishers": [{"id": 3, "display": "7",
          "streams": [{"type": "video", "mid": "0", "codec": "vp8", "disabled": true}]}]}},
          "jsep": {"type": "offer", "sdp": "v=0"}})",
  };
}

}  // namespace zelta::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelta::fuzz::check(zelta::fuzz::text_of(data, size));
  return 0;
}
