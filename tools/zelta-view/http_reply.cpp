// SPDX-License-Identifier: Apache-2.0
#include "http_reply.h"

namespace zelta::view {

void set_header(SoupServerMessage* message, const char* name, const std::string& value) {
  soup_message_headers_replace(soup_server_message_get_response_headers(message), name,
                               value.c_str());
}

std::string asked_header(SoupServerMessage* message, const char* name) {
  const char* const value =
      soup_message_headers_get_list(soup_server_message_get_request_headers(message), name);
  return value != nullptr ? value : "";
}

void reply(SoupServerMessage* message, int status, const char* type, const std::string& text) {
  soup_server_message_set_status(message, static_cast<guint>(status), nullptr);
  soup_server_message_set_response(message, type, SOUP_MEMORY_COPY, text.data(), text.size());
}

}  // namespace zelta::view
