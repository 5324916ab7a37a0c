// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/whip/whip_rules.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <strings.h>

#include "core_service/channel/glib.h"
#include "core_service/channel/user_id.h"
#include "core_service/channel/whip/page.h"

namespace zelta::core_service {
namespace {

// What a path may lead to, by the number of its parts.
struct resource {
  const char* what;
  const char* methods;  // that are answered there
  const char* accept;   // the header that says what may be sent there; null: nothing
  const char* type;
};
constexpr resource kPage{"the page", "GET, HEAD, OPTIONS", nullptr, nullptr};
constexpr resource kPublishing{"a user", "POST, OPTIONS", "Accept-Post", kOfferType};
constexpr resource kSession{"a session", "PATCH, DELETE, OPTIONS", "Accept-Patch", kFragmentType};
constexpr resource kEvents{"a session's events", "GET, OPTIONS", nullptr, nullptr};

bool may(const resource& there, const std::string& method) {
  const std::string all = std::string(", ") + there.methods + ",";
  return all.find(", " + method + ",") != std::string::npos;
}

std::string escaped(const std::string& text) {
  return text_ptr(g_uri_escape_string(text.c_str(), nullptr, FALSE)).get();
}

// The decoded parts behind the first slash. Empty when one can't be decoded, or has a NUL in it.
std::vector<std::string> parts_of(const std::string& path) {
  std::vector<std::string> parts;
  for (size_t at = 0; at < path.size() && path[at] == '/';) {
    const size_t end = std::min(path.find('/', at + 1), path.size());
    const text_ptr part(g_uri_unescape_segment(path.data() + at + 1, path.data() + end, nullptr));
    if (!part) return {};
    parts.emplace_back(part.get());
    at = end;
  }
  return parts;
}

const resource* resource_of(const std::vector<std::string>& parts) {
  const size_t depth = parts.size() - (parts.size() == 2 && parts[1].empty() ? 1 : 0);
  if (depth == 1) return &kPage;
  if (depth == 2) return &kPublishing;
  if (depth < 3 || parts[2].empty()) return nullptr;
  if (depth == 3) return &kSession;
  return depth == 4 && parts[3] == kEventsPart ? &kEvents : nullptr;
}

// RFC 9725, section 4.1, and what a page of another origin needs to be let in by its browser.
http_answer answer_options(const resource& there) {
  http_answer answer{204,
                     "",
                     "",
                     {{"Allow", there.methods},
                      {"Access-Control-Allow-Methods", there.methods},
                      {"Access-Control-Allow-Headers", "Authorization, Content-Type, If-Match"},
                      {"Access-Control-Max-Age", "86400"}}};
  if (there.accept != nullptr) answer.headers.emplace_back(there.accept, there.type);
  return answer;
}

// RFC 6750, section 3.
http_answer no_token(bool wrong) {
  http_answer answer = in_words(
      401, wrong ? "the token is wrong: it should be the one that the recorder's settings have"
                 : "a token is needed: send it as \"Authorization: Bearer TOKEN\"");
  answer.headers.emplace_back("WWW-Authenticate",
                              wrong ? "Bearer error=\"invalid_token\"" : "Bearer");
  return answer;
}

http_answer wrong_type(const resource& there, const std::string& type) {
  http_answer answer = in_words(415, "Content-Type \"" + type + "\" should be " + there.type);
  answer.headers.emplace_back(there.accept, there.type);
  return answer;
}

// What stands between the two, for its hash: the page's own style and script are let run and none
// that somebody may have brought in (CSP Level 3, section 8.3).
std::string hash_of_inline(std::string_view begin, std::string_view end) {
  const std::string_view page = whip_page();
  const size_t from = page.find(begin) + begin.size();
  const std::string_view text = page.substr(from, page.find(end, from) - from);
  std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), hash.data());
  const text_ptr base64(g_base64_encode(hash.data(), hash.size()));
  return std::string("'sha256-") + base64.get() + "'";
}

std::string policy_of_page() {
  return "default-src 'none'; connect-src 'self'; img-src data:; style-src " +
         hash_of_inline("<style>", "</style>") + "; script-src " +
         hash_of_inline("<script>", "</script>") +
         "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
}

}  // namespace

http_answer too_long() {
  return in_words(413, "the body is too long: it should have " + std::to_string(kMostBodyBytes) +
                           " bytes at most");
}

whip_rules::whip_rules(const std::string& channel, const std::string& token)
    : channel_(channel),
      channel_path_("/" + escaped(channel)),
      asks_token_(!token.empty()),
      token_(digest_of(token)),
      policy_(policy_of_page()) {}

whip_rules::digest whip_rules::digest_of(const std::string& text) {
  digest made{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), made.data());
  return made;
}

// By their digests, so that the time that it takes tells neither the token's length nor where it
// differs.
bool whip_rules::has_token(const std::string& authorization) const {
  constexpr std::string_view kScheme = "Bearer ";
  if (strncasecmp(authorization.c_str(), kScheme.data(), kScheme.size()) != 0) return false;
  const size_t start = authorization.find_first_not_of(' ', kScheme.size());
  if (start == std::string::npos) return false;
  const digest given = digest_of(authorization.substr(start));
  return CRYPTO_memcmp(given.data(), token_.data(), given.size()) == 0;
}

http_answer whip_rules::answer_page(const request_head& head) const {
  if (head.method == "OPTIONS") return answer_options(kPage);
  return {200,
          "text/html; charset=utf-8",
          std::string(whip_page()),
          {{"Content-Security-Policy", policy_},
           {"Permissions-Policy", "camera=(self), microphone=(self), display-capture=(self)"},
           {"Referrer-Policy", "no-referrer"},
           {"X-Content-Type-Options", "nosniff"},
           {"Cache-Control", "no-cache"}}};
}

std::variant<whip_question, http_answer> whip_rules::judge(const request_head& head) const {
  const std::vector<std::string> parts = parts_of(head.path);
  const resource* const there = parts.empty() ? nullptr : resource_of(parts);
  if (there == nullptr) {
    return in_words(404,
                    "there is nothing here: the path should be /CHANNEL for the page, or "
                    "/CHANNEL/USER to publish");
  }
  if (parts[0] != channel_) {
    return in_words(
        404, "this channel isn't recorded here: the path should begin with " + channel_path_);
  }
  if (!may(*there, head.method)) {
    http_answer answer = in_words(405, std::string("the method should be one of those of ") +
                                           there->what + ": " + there->methods);
    answer.headers.emplace_back("Allow", there->methods);
    return answer;
  }
  if (there == &kPage) return answer_page(head);
  if (head.method == "OPTIONS") return answer_options(*there);
  if (asks_token_ && !has_token(head.authorization)) return no_token(!head.authorization.empty());
  if (!is_user_name(parts[1])) {
    return in_words(400,
                    "the user's name should be 1 to 128 bytes of UTF-8 without control "
                    "characters");
  }
  if (there->type != nullptr && head.method != "DELETE" &&
      strcasecmp(head.content_type.c_str(), there->type) != 0) {
    return wrong_type(*there, head.content_type);
  }
  if (head.body_bytes > kMostBodyBytes) return too_long();
  whip_question asked{
      whip_question::kPublish, parts[1], channel_path_ + "/" + escaped(parts[1]), "",
      head.if_match,           ""};
  if (there == &kPublishing) return asked;
  asked.session = parts[2];
  asked.what = there == &kEvents         ? whip_question::kWatch
               : head.method == "DELETE" ? whip_question::kEnd
                                         : whip_question::kPatch;
  return asked;
}

}  // namespace zelta::core_service
