// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/gateway_place.h"

#include <memory>

#include "core_service/channel/glib.h"

namespace zelta::core_service::janus {
namespace {

struct uri_unref {
  void operator()(GUri* uri) const { g_uri_unref(uri); }
};
using uri_ptr = std::unique_ptr<GUri, uri_unref>;

std::string or_empty(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace

std::optional<gateway_place> parse_gateway(const std::string& text, std::string& error) {
  const uri_ptr uri(g_uri_parse(text.c_str(), G_URI_FLAGS_ENCODED, nullptr));
  const std::string scheme = uri ? or_empty(g_uri_get_scheme(uri.get())) : "";
  const bool web_socket = scheme == "ws" || scheme == "wss";
  const bool known = web_socket || scheme == "http" || scheme == "https";
  if (!known || or_empty(g_uri_get_host(uri.get())).empty() || g_uri_get_port(uri.get()) == 0 ||
      g_uri_get_userinfo(uri.get()) != nullptr || g_uri_get_query(uri.get()) != nullptr ||
      g_uri_get_fragment(uri.get()) != nullptr) {
    error = "\"" + text +
            "\" should be http://HOST:PORT/janus or ws://HOST:PORT/janus, or the same with https "
            "or wss";
    return std::nullopt;
  }
  gateway_place made{text, web_socket};
  while (made.url.back() == '/') made.url.pop_back();
  return made;
}

}  // namespace zelta::core_service::janus
