// SPDX-License-Identifier: Apache-2.0
#include "view_rules.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include <strings.h>
#include <sys/random.h>

#include "core_service/channel/glib.h"
#include "digest.h"

namespace zelta::view {
namespace {

using core_service::text_ptr;

std::string value_of_cookie(const std::string& name, const std::string& header) {
  const std::string start = name + "=";
  for (size_t at = 0; at < header.size();) {
    at = header.find_first_not_of("; ", at);
    if (at == std::string::npos) break;
    const size_t end = std::min(header.find(';', at), header.size());
    if (header.compare(at, start.size(), start) == 0) {
      return header.substr(at + start.size(), end - at - start.size());
    }
    at = end;
  }
  return "";
}

// No name of the DNS leads here but by somebody's will.
bool is_plain_host(const std::string& header) {
  std::string host = header;
  const size_t colon = host.rfind(':');
  if (!host.empty() && host.front() == '[') {
    const size_t end = host.find(']');
    if (end == std::string::npos) return false;
    host = host.substr(1, end - 1);
  } else if (colon != std::string::npos) {
    host = host.substr(0, colon);
  }
  return strcasecmp(host.c_str(), "localhost") == 0 || g_hostname_is_ip_address(host.c_str());
}

// The decoded rest of a path; empty when it can't be one file's name.
std::string name_in(const std::string& path, std::string_view behind) {
  const std::string rest = path.substr(behind.size());
  if (rest.empty()) return "";
  const text_ptr name(g_uri_unescape_string(rest.c_str(), nullptr));
  if (!name) return "";
  const std::string text = name.get();
  return text == "." || text == ".." || text.find('/') != std::string::npos ? "" : text;
}

verdict refuse(int status, const std::string& text) {
  return {verdict::kRefuse, "", status, text};
}

verdict of_path(const std::string& path) {
  constexpr std::string_view kFiles = "/files/";
  constexpr std::string_view kLevels = "/levels/";
  if (path == "/" || path == "/index.html") return {verdict::kPage, "", 200, ""};
  if (path == "/session.json") return {verdict::kSession, "", 200, ""};
  for (const auto& [start, what] :
       {std::pair(kFiles, verdict::kFile), std::pair(kLevels, verdict::kLevels)}) {
    if (path.compare(0, start.size(), start) != 0) continue;
    const std::string name = name_in(path, start);
    if (!name.empty()) return {what, name, 200, ""};
  }
  return refuse(404, "there is nothing here: the page is at /");
}

}  // namespace

view_rules::view_rules(const std::string& token, const std::string& cookie, int port)
    : asks_token_(!token.empty()),
      token_digest_(sha256_of(token)),
      cookie_name_("zelta_view_" + std::to_string(port)),
      cookie_(cookie),
      cookie_digest_(sha256_of(cookie)) {}

bool view_rules::is_let_in(const request_head& head) const {
  constexpr std::string_view kScheme = "Bearer ";
  if (!asks_token_) return true;
  if (strncasecmp(head.authorization.c_str(), kScheme.data(), kScheme.size()) == 0 &&
      sha256_of(head.authorization.substr(kScheme.size())) == token_digest_) {
    return true;
  }
  return sha256_of(value_of_cookie(cookie_name_, head.cookie)) == cookie_digest_;
}

verdict view_rules::judge(const request_head& head) const {
  if (!asks_token_ && !is_plain_host(head.host)) {
    return refuse(421, "Host \"" + head.host + "\" should be an IP address or localhost");
  }
  const bool is_page = of_path(head.path).what == verdict::kPage;
  if (!is_page && (head.fetch_site == "cross-site" || head.fetch_site == "same-site")) {
    return refuse(403, "another site may lead to / alone");
  }
  if (asks_token_ && is_page && head.method == "POST") return {verdict::kEnter, "", 200, ""};
  if (head.method != "GET" && head.method != "HEAD") {
    return refuse(405, "method " + head.method + " should be GET or HEAD");
  }
  verdict found = of_path(head.path);
  if (is_let_in(head)) return found;
  if (found.what == verdict::kPage) return {verdict::kAskToken, "", 200, ""};
  return refuse(401, "a token is needed: send it as \"Authorization: Bearer TOKEN\", or open /");
}

bool view_rules::knows_token(const std::string& body) const {
  GHashTable* const fields = g_uri_parse_params(body.c_str(), static_cast<gssize>(body.size()), "&",
                                                G_URI_PARAMS_WWW_FORM, nullptr);
  if (fields == nullptr) return false;
  const auto* const token = static_cast<const char*>(g_hash_table_lookup(fields, "token"));
  const bool knows = token != nullptr && sha256_of(token) == token_digest_;
  g_hash_table_unref(fields);
  return knows;
}

std::string view_rules::cookie_header() const {
  // Lax: a link in somebody's mail leads to the page.
  return cookie_name_ + "=" + cookie_ + "; HttpOnly; SameSite=Lax; Path=/";
}

std::string fresh_secret() {
  unsigned char bytes[32];
  // So few come at once, or not at all.
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 15U];
  }
  return text;
}

}  // namespace zelta::view
