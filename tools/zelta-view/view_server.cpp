// SPDX-License-Identifier: Apache-2.0
#include "view_server.h"

#include <cstdio>
#include <exception>
#include <map>
#include <utility>

#include "byte_range.h"
#include "file_stream.h"
#include "page.h"
#include "page_text.h"

namespace zelta::view {
namespace {

using core_service::glib_error;
using core_service::glib_ptr;

// Several pages that ask at once cost one look.
constexpr int64_t kLookUs = 500'000;

// Of the form with a token.
constexpr goffset kMostBodyBytes = 4096;

constexpr const char* kHtml = "text/html; charset=utf-8";
constexpr const char* kJson = "application/json";
constexpr const char* kText = "text/plain; charset=utf-8";

SoupMessageHeaders* headers_of(SoupServerMessage* message) {
  return soup_server_message_get_response_headers(message);
}

void set_header(SoupServerMessage* message, const char* name, const std::string& value) {
  soup_message_headers_replace(headers_of(message), name, value.c_str());
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
  return head;
}

std::string levels_json(const std::optional<std::string>& levels) {
  Json::Value made;
  made["step_ms"] = Json::Int64(100);
  if (levels) {
    made["levels"] =
        core_service::text_ptr(
            g_base64_encode(reinterpret_cast<const guchar*>(levels->data()), levels->size()))
            .get();
  }
  return text_of(made);
}

}  // namespace

// Those who wait for volumes. The server's thread makes and ends it, and alone touches messages.
struct view_server::waiting_room {
  uint64_t last_id = 0;
  std::map<uint64_t, message_ptr> messages;
};

// An answer on its way from the worker's thread.
struct view_server::measured {
  std::shared_ptr<waiting_room> room;
  uint64_t id;
  std::string json;

  void give() const {
    const auto found = room->messages.find(id);
    if (found == room->messages.end()) return;
    const message_ptr message = std::move(found->second);
    room->messages.erase(found);
    reply(message.get(), 200, kJson, json);
    soup_server_message_unpause(message.get());
  }
};

view_server::view_server(const options& o)
    : options_(o),
      rules_(o.token, fresh_secret()),
      policy_(policy_of_page()),
      // Paths stay encoded: a name may have a slash in it.
      server_(soup_server_new("raw-paths", TRUE, nullptr)),
      room_(std::make_shared<waiting_room>()),
      levels_(std::make_unique<level_worker>(level_cache(o.cache))) {
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
}

view_server::~view_server() {
  levels_.reset();
  room_->messages.clear();
  soup_server_disconnect(server_.get());
}

std::unique_ptr<view_server> view_server::start(const options& o, std::string& error) {
  std::unique_ptr<view_server> made(new view_server(o));
  const glib_ptr<GSocketAddress> place(
      g_inet_socket_address_new_from_string(o.address.c_str(), static_cast<guint>(o.port)));
  glib_error fault;
  if (!soup_server_listen(made->server_.get(), place.get(), SoupServerListenOptions{},
                          fault.out())) {
    error = "can't listen at address " + o.address + ", TCP port " + std::to_string(o.port) + ": " +
            fault.text();
    return nullptr;
  }
  return made;
}

std::string view_server::url() const {
  GSList* const all = soup_server_get_uris(server_.get());
  std::string url;
  if (all != nullptr) {
    url = core_service::text_ptr(g_uri_to_string(static_cast<GUri*>(all->data))).get();
  }
  g_slist_free_full(all, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  return url;
}

// libsoup can't pass an exception on.
void view_server::answer_safely(SoupServerMessage* message, const char* path) {
  try {
    answer(message, path);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelta-view: %s can't be answered: %s\n", path, e.what());
    soup_server_message_set_status(message, 500, nullptr);
  }
}

void view_server::answer(SoupServerMessage* message, const char* path) {
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
  if (seen_at_us_ == 0 || now_us - seen_at_us_ > kLookUs) {
    seen_ = look_at(options_.folder, wall_clock_ms());
    seen_at_us_ = now_us;
  }
  return seen_;
}

void view_server::give_session(SoupServerMessage* message) {
  reply(message, 200, kJson, text_of(look().page));
}

bool view_server::is_served(const std::string& name) {
  return look().files.count(name) > 0;
}

void view_server::give_file(SoupServerMessage* message, const std::string& name) {
  uint64_t size = 0;
  base::unique_fd file;
  if (is_served(name)) {
    file = open_in(options_.folder, name, size);
  }
  if (!file.valid()) {
    return reply(message, 404, kText, "\"" + name + "\" is no file that the recording names\n");
  }
  const byte_range range = parse_range(asked_header(message, "Range"), size);
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
  send_part(message, std::move(file), range.first, size == 0 ? 0 : range.size());
}

// The worker's thread hands the answer to this one.
void view_server::give_levels(SoupServerMessage* message, const std::string& name) {
  if (!is_served(name)) {
    return reply(message, 404, kText, "\"" + name + "\" is no file that the recording names\n");
  }
  soup_server_message_pause(message);
  const uint64_t id = ++room_->last_id;
  room_->messages.emplace(id, message_ptr(SOUP_SERVER_MESSAGE(g_object_ref(message))));
  levels_->measure(
      options_.folder + name, [room = room_, id](const std::optional<std::string>& levels) {
        auto made = std::make_unique<measured>(measured{room, id, levels_json(levels)});
        g_idle_add_full(
            G_PRIORITY_DEFAULT,
            [](gpointer one) -> gboolean {
              static_cast<measured*>(one)->give();
              return G_SOURCE_REMOVE;
            },
            made.release(), [](gpointer one) { delete static_cast<measured*>(one); });
      });
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
