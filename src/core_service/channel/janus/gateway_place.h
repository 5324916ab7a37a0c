// SPDX-License-Identifier: Apache-2.0
// Where a Janus gateway is, and what it is spoken to by. Any thread.
#pragma once

#include <optional>
#include <string>

namespace zelta::core_service::janus {

struct gateway_place {
  std::string url;  // without a slash at its end
  bool web_socket;  // else HTTP with long polls
};

// Of "http://HOST:PORT/janus", or the same with https, ws or wss. None, with `error` saying what
// would be right.
std::optional<gateway_place> parse_gateway(const std::string& text, std::string& error);

}  // namespace zelta::core_service::janus
