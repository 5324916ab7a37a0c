// SPDX-License-Identifier: Apache-2.0
#include "page_text.h"

#include <string_view>

#include "digest.h"
#include "page.h"

namespace zelta::view {
namespace {

constexpr std::string_view kDataPlace = R"(<script type="application/json" id="session"></script>)";
constexpr std::string_view kPolicyPlace = "<!-- policy -->";

std::string hash_of_inline(std::string_view begin, std::string_view end) {
  const std::string_view page = view_page();
  const size_t from = page.find(begin) + begin.size();
  return "'sha256-" + base64_sha256_of(page.substr(from, page.find(end, from) - from)) + "'";
}

std::string policy(const std::string& media) {
  return "default-src 'none'; connect-src 'self'; img-src data:; media-src " + media +
         "; style-src " + hash_of_inline("<style>", "</style>") + "; script-src " +
         hash_of_inline("<script>", "</script>") + "; base-uri 'none'; form-action 'none'";
}

void replace(std::string& text, std::string_view place, const std::string& with) {
  const size_t at = text.find(place);
  if (at != std::string::npos) text.replace(at, place.size(), with);
}

}  // namespace

std::string policy_of_page() {
  return policy("'self' blob:") + "; frame-ancestors 'none'";
}

std::string page_with(const std::string& session) {
  std::string data;
  // What ends a script can't be in one.
  for (const char c : session) {
    if (c == '<') {
      data += "\\u003c";
    } else {
      data += c;
    }
  }
  std::string page(view_page());
  replace(
      page, kPolicyPlace,
      "<meta http-equiv=\"Content-Security-Policy\" content=\"" + policy("'self' file:") + "\">");
  replace(page, kDataPlace,
          R"(<script type="application/json" id="session">)" + data + "</script>");
  return page;
}

std::string token_page(bool was_wrong) {
  return std::string(R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark"><title>Recording</title><link rel="icon" href="data:,"></head>
<body><main><h1>Recording</h1>)") +
         (was_wrong ? R"(<p role="alert">The token is wrong.</p>)" : "") + R"(
<form method="post" action=""><p><label>Access token of this recording<br>
<input name="token" type="password" autocomplete="current-password" required autofocus></label></p>
<p><button>Open</button></p></form></main></body></html>
)";
}

std::string policy_of_token_page() {
  return "default-src 'none'; img-src data:; base-uri 'none'; form-action 'self'; "
         "frame-ancestors 'none'";
}

}  // namespace zelta::view
