// SPDX-License-Identifier: Apache-2.0
#include "view_server.h"

#include <exception>
#include <map>
#include <utility>

#include "byte_range.h"
#include "complain.h"
#include "digest.h"
#include "file_stream.h"
#include "http_reply.h"
#include "page.h"
#include "page_text.h"
#include "recordings/regular_file.h"

namespace zelta::view {
namespace {

using core_service::http_listener;

// Several pages that ask at once cost one look.
constexpr int64_t kLookUs = 500'000;

// In answer to a range without an end.
constexpr uint64_t kMostOpenBytes = 4U << 20U;

// A connection takes a descriptor, and what it sends another; a folder's files and the rest are
// few.
constexpr size_t kShareOfDescriptors = 4;
// A browser's media stop reading when they have enough, and go on after a cut.
constexpr unsigned kSilentMs = 60'000;

// Of the form with a token.
constexpr goffset kMostBodyBytes = 4096;

constexpr const char* kHtml = "text/html; charset=utf-8";

// A longer one is read and not kept: it isn't the form's.
void bound_body(SoupServerMessage* message) {
  SoupMessageHeaders* const headers = soup_server_message_get_request_headers(message);
  const bool fits = soup_message_headers_get_encoding(headers) == SOUP_ENCODING_CONTENT_LENGTH &&
                    soup_message_headers_get_content_length(headers) <= kMostBodyBytes;
  if (!fits) {
    soup_message_body_set_accumulate(soup_server_message_get_request_body(message), FALSE);
  }
}

const char* media_type(const std::string& name) {
  static const std::map<std::string, const char*> kTypes{
      {".mp4", "video/mp4"}, {".m4a", "audio/mp4"}, {".webm", "video/webm"}};
  const size_t dot = name.rfind('.');
  const auto found = kTypes.find(dot == std::string::npos ? "" : name.substr(dot));
  return found == kTypes.end() ? "application/octet-stream" : found->second;
}

void give_token_page(SoupServerMessage* message, bool was_wrong) {
  set_header(message, "Content-Security-Policy", policy_of_token_page());
  reply(message, was_wrong ? 403 : 401, kHtml, token_page(was_wrong));
}

request_head head_of(SoupServerMessage* message, const char* path) {
  request_head head;
  head.method = soup_server_message_get_method(message);
  head.path = path;
  head.host = asked_header(message, "Host");
  head.authorization = asked_header(message, "Authorization");
  head.cookie = asked_header(message, "Cookie");
  head.fetch_site = asked_header(message, "Sec-Fetch-Site");
  return head;
}

// One that stands for all addresses leads to this machine from itself alone.
std::string openable(const std::string& address) {
  if (address == "0.0.0.0") return "127.0.0.1";
  if (address == "::") return "::1";
  return address;
}

}  // namespace

view_server::view_server(const options& o, listener_ptr listener)
    : options_(o),
      listener_(std::move(listener)),
      rules_(o.token, fresh_secret(), listener_->port()),
      policy_(policy_of_page()),
      // Paths stay encoded: a name may have a slash in it.
      server_(soup_server_new("raw-paths", TRUE, nullptr)),
      folder_(o.folder),
      levels_(o.folder, level_cache(o.cache), *listener_) {
  soup_server_add_early_handler(
      server_.get(), nullptr,
      [](SoupServer* /*server*/, SoupServerMessage* message, const char* /*path*/,
         GHashTable* /*query*/, gpointer /*unused*/) { bound_body(message); },
      nullptr, nullptr);
  soup_server_add_handler(
      server_.get(), nullptr,
      [](SoupServer* /*server*/, SoupServerMessage* message, const char* path,
         GHashTable* /*query*/,
         gpointer self) { static_cast<view_server*>(self)->answer_safely(message, path); },
      this, nullptr);
  listener_->start(g_main_context_default(),
                   [this](GIOStream* stream, GSocketAddress* local, GSocketAddress* remote) {
                     soup_server_accept_iostream(server_.get(), stream, local, remote, nullptr);
                   });
}

view_server::~view_server() {
  listener_->stop();
  soup_server_disconnect(server_.get());
}

std::unique_ptr<view_server> view_server::start(const options& o, std::string& error) {
  http_listener::limits bounds = http_listener::limits::of_descriptors(kShareOfDescriptors);
  bounds.connection_ms = kSilentMs;
  listener_ptr listener = http_listener::make(o.address, o.port, nullptr, bounds, error);
  if (!listener) return nullptr;
  return std::unique_ptr<view_server>(new view_server(o, std::move(listener)));
}

std::string view_server::url() const {
  const std::string host = openable(options_.address);
  const bool in_brackets = host.find(':') != std::string::npos;
  return "http://" + (in_brackets ? "[" + host + "]" : host) + ":" +
         std::to_string(listener_->port()) + "/";
}

// libsoup can't pass an exception on.
void view_server::answer_safely(SoupServerMessage* message, const char* path) {
  try {
    answer(message, path);
  } catch (const std::exception& e) {
    complain(std::string(path) + " can't be answered: " + e.what());
    listener_->let_go(soup_server_message_get_remote_address(message));
    soup_server_message_set_status(message, 500, nullptr);
  }
}

void view_server::answer(SoupServerMessage* message, const char* path) {
  listener_->renew(soup_server_message_get_remote_address(message));
  set_header(message, "Cache-Control", "no-store");
  set_header(message, "X-Content-Type-Options", "nosniff");
  set_header(message, "Referrer-Policy", "no-referrer");
  // Nobody else's page may show what is here.
  set_header(message, "Cross-Origin-Resource-Policy", "same-origin");
  const verdict found = rules_.judge(head_of(message, path));
  switch (found.what) {
    case verdict::kPage:
      return give_page(message);
    case verdict::kSession:
      return give_session(message);
    case verdict::kFile:
      return give_file(message, found.name);
    case verdict::kLevels:
      return give_levels(message, found.name);
    case verdict::kEnter:
      return take_token(message);
    case verdict::kAskToken:
      return give_token_page(message, false);
    case verdict::kRefuse:
      break;
  }
  if (found.status == 405) set_header(message, "Allow", "GET, HEAD");
  if (found.status == 401) set_header(message, "WWW-Authenticate", "Bearer");
  reply(message, found.status, kText, found.text + "\n");
}

void view_server::give_page(SoupServerMessage* message) {
  set_header(message, "Content-Security-Policy", policy_);
  reply(message, 200, kHtml, std::string(view_page()));
}

const folder_view& view_server::look() {
  const int64_t now_us = g_get_monotonic_time();
  if (seen_ == nullptr || now_us - seen_at_us_ > kLookUs) {
    seen_ = &folder_.look(wall_clock_ms());
    seen_at_us_ = now_us;
  }
  return *seen_;
}

void view_server::give_session(SoupServerMessage* message) {
  const std::string text = text_of(look().page);
  const std::string tag = '"' + sha256_of(text) + '"';
  set_header(message, "ETag", tag);
  if (asked_header(message, "If-None-Match") == tag) {
    return soup_server_message_set_status(message, 304, nullptr);
  }
  reply(message, 200, kJson, text);
}

// Once a file is known nobody who plays it waits for a look at the folder.
bool view_server::is_served(const std::string& name) {
  if (seen_ != nullptr && seen_->files.count(name) > 0) return true;
  return look().files.count(name) > 0;
}

void view_server::give_file(SoupServerMessage* message, const std::string& name) {
  struct stat status {};
  base::unique_fd file;
  if (is_served(name)) {
    file = recordings::open_regular(options_.folder, name, status);
  }
  if (!file.valid()) {
    return reply(message, 404, kText, "\"" + name + "\" is no file that the recording names\n");
  }
  const auto size = static_cast<uint64_t>(status.st_size);
  const byte_range range = parse_range(asked_header(message, "Range"), size, kMostOpenBytes);
  // libsoup would answer to it in its own way.
  soup_message_headers_remove(soup_server_message_get_request_headers(message), "Range");
  set_header(message, "Accept-Ranges", "bytes");
  if (range.what == byte_range::kBeyond) {
    set_header(message, "Content-Range", "bytes */" + std::to_string(size));
    return reply(message, 416, kText, "the file has " + std::to_string(size) + " bytes\n");
  }
  set_header(message, "Content-Type", media_type(name));
  const bool part = range.what == byte_range::kPart;
  if (part) {
    set_header(message, "Content-Range",
               "bytes " + std::to_string(range.first) + "-" + std::to_string(range.last) + "/" +
                   std::to_string(size));
  }
  soup_server_message_set_status(message, part ? 206 : 200, nullptr);
  send_part(message, *listener_, std::move(file), range.first, size == 0 ? 0 : range.size());
}

void view_server::give_levels(SoupServerMessage* message, const std::string& name) {
  if (!is_served(name)) {
    return reply(message, 404, kText, "\"" + name + "\" is no file that the recording names\n");
  }
  levels_.wait(message, name);
}

void view_server::take_token(SoupServerMessage* message) {
  SoupMessageBody* const kept = soup_server_message_get_request_body(message);
  std::string form;
  if (soup_message_body_get_accumulate(kept)) {
    const core_service::bytes_ptr body(soup_message_body_flatten(kept));
    gsize size = 0;
    const auto* const bytes = static_cast<const char*>(g_bytes_get_data(body.get(), &size));
    if (size > 0) form.assign(bytes, size);
  }
  if (!rules_.knows_token(form)) {
    return give_token_page(message, true);
  }
  set_header(message, "Set-Cookie", rules_.cookie_header());
  set_header(message, "Location", "/");
  reply(message, 303, kText, "");
}

}  // namespace zelta::view
