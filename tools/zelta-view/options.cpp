// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <charconv>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "core_service/channel/glib.h"
#include "exit_status.h"
#include "secret_sources.h"
#include "zelta_revision.h"

namespace zelta::view {
namespace {

using core_service::glib_ptr;

constexpr const char* kTokenVariable = "ZELTA_VIEW_TOKEN";
constexpr size_t kLongestToken = 1024;
constexpr const char* kRightToken =
    "the token should be 1 to 1024 printable ASCII characters without spaces";

std::string default_cache() {
  const char* const named = std::getenv("XDG_CACHE_HOME");
  // The standard of this variable wants others ignored.
  if (named != nullptr && named[0] == '/') return std::string(named) + "/zelta-view/";
  const char* const home = std::getenv("HOME");
  return home != nullptr && home[0] == '/' ? std::string(home) + "/.cache/zelta-view/" : "";
}

// It goes into headers and forms.
bool is_token(const std::string& text) {
  if (text.size() > kLongestToken) return false;
  for (const char c : text) {
    if (c <= ' ' || c > '~') return false;
  }
  return true;
}

std::string take_token(const std::string& file, std::string& token) {
  const std::string from_environment = record::take_secret_variable(kTokenVariable);
  std::string error;
  if (!file.empty()) {
    const auto read = record::secret_of_file(file, error);
    if (!read) return "--token-file " + error;
    token = *read;
  } else if (token.empty()) {
    token = from_environment;
  }
  return is_token(token) ? "" : kRightToken;
}

}  // namespace

bool is_loopback(const std::string& address) {
  const glib_ptr<GInetAddress> parsed(g_inet_address_new_from_string(address.c_str()));
  return parsed && g_inet_address_get_is_loopback(parsed.get()) != FALSE;
}

std::string parse_address(const std::string& text, std::string& address, int& port) {
  const std::string right =
      " should be ADDRESS:PORT: an IP address of this machine, an IPv6 one in brackets, and 0 to "
      "65535, as 127.0.0.1:0";
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return "--address " + text + right;
  std::string host = text.substr(0, colon);
  const bool in_brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (in_brackets) host = host.substr(1, host.size() - 2);
  const bool has_colon = host.find(':') != std::string::npos;
  const glib_ptr<GInetAddress> parsed(g_inet_address_new_from_string(host.c_str()));
  int number = -1;
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data() + colon + 1, end, number);
  if (!parsed || has_colon != in_brackets || failed != std::errc() || stopped != end ||
      number < 0 || number > 65535) {
    return "--address " + text + right;
  }
  address = host;
  port = number;
  return "";
}

parse_result parse_options(int argc, const char* const* argv, options& o) {
  CLI::App app("Shows a recording: all users in step on one timeline, in a browser.", "zelta-view");
  app.footer(kStatusHelp);
  app.set_version_flag("--version", "zelta-view " ZELTA_REVISION);
  std::string address = "127.0.0.1:0";
  std::string token_file;
  bool no_cache = false;
  o.cache = default_cache();
  app.add_option("folder", o.folder, "folder of the recording")->required();
  auto* const listens = app.add_option("--address", address,
                                       "address and port to serve at; port 0: one that is free");
  listens->capture_default_str();
  auto* const token =
      app.add_option("--token", o.token,
                     "what visitors have to know, needed for other addresses than loopback; "
                     "better from a file or from ZELTA_VIEW_TOKEN");
  auto* const from_file =
      app.add_option("--token-file", token_file, "file with it in the first line")->excludes(token);
  app.add_flag("--export", o.export_page,
               "write index.html beside the files instead, which needs no server")
      ->excludes(listens)
      ->excludes(token)
      ->excludes(from_file);
  auto* const cache =
      app.add_option("--cache", o.cache,
                     "folder for measured volumes; default: zelta-view in XDG_CACHE_HOME or "
                     "~/.cache");
  app.add_flag("--no-cache", no_cache, "measure volumes each time")->excludes(cache);
  app.add_flag("--json", o.json, "one JSON object a line and event");
  return tools::parse_command_line(app, argc, argv, kUsage, [&]() -> std::string {
    if (no_cache) o.cache.clear();
    if (!o.cache.empty() && o.cache.back() != '/') o.cache += '/';
    if (o.folder.empty()) return "the folder should be named, and not be empty";
    if (o.folder.back() != '/') o.folder += '/';
    if (token->count() > 0 && o.token.empty()) return std::string("--token: ") + kRightToken;
    std::string error = parse_address(address, o.address, o.port);
    if (error.empty()) error = take_token(token_file, o.token);
    if (!error.empty()) return error;
    if (o.export_page || !o.token.empty() || is_loopback(o.address)) return "";
    return "--address " + address +
           " can be reached by others: give a token by --token-file or ZELTA_VIEW_TOKEN, or serve "
           "at 127.0.0.1";
  });
}

}  // namespace zelta::view
