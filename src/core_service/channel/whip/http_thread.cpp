// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/whip/http_thread.h"

#include <utility>

#include <libsoup/soup.h>

namespace zelta::core_service {
namespace {

constexpr const char* kExchange = "zelta-exchange";
// What is read of a body that is too long, so that its sender, who writes first and reads then,
// sees the answer.
constexpr size_t kMostReadBytes = 1 << 20;
// For the last answers, and for connections to be let go of.
constexpr unsigned kLastAnswersMs = 150;
constexpr unsigned kLetGoMs = 50;

constexpr const char* kEnds = "the recording ends here: try again later, or elsewhere";

http_answer too_many_watch() {
  http_answer answer = in_words(503, "too many wait for the end of a session: try again later");
  answer.headers.emplace_back("Retry-After", "30");
  return answer;
}

const char* or_empty(const char* text) {
  return text != nullptr ? text : "";
}

request_head head_of(SoupServerMessage* message) {
  SoupMessageHeaders* const headers = soup_server_message_get_request_headers(message);
  const auto value = [headers](const char* name) {
    return std::string(or_empty(soup_message_headers_get_list(headers, name)));
  };
  request_head head;
  head.method = or_empty(soup_server_message_get_method(message));
  head.path = or_empty(g_uri_get_path(soup_server_message_get_uri(message)));
  head.content_type = or_empty(soup_message_headers_get_content_type(headers, nullptr));
  head.authorization = value("Authorization");
  head.if_match = value("If-Match");
  head.body_bytes = soup_message_headers_get_content_length(headers);
  return head;
}

// What is told to pages of other origins; theirs are allowed to publish, since no cookie or other
// credential of the browser's own is taken.
constexpr const char* kExposed =
    "Location, ETag, Link, Accept-Patch, Accept-Post, Retry-After, WWW-Authenticate";

void reply(SoupServerMessage* message, const http_answer& what) {
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
  for (const auto& [name, value] : what.headers) {
    soup_message_headers_replace(headers, name, value.c_str());
  }
  soup_message_headers_replace(headers, "Access-Control-Allow-Origin", "*");
  soup_message_headers_replace(headers, "Access-Control-Expose-Headers", kExposed);
  soup_message_headers_replace(headers, "Connection", "close");
  if (!what.content_type.empty()) {
    soup_server_message_set_response(message, what.content_type.c_str(), SOUP_MEMORY_COPY,
                                     what.body.data(), what.body.size());
  }
  soup_server_message_set_status(message, static_cast<guint>(what.status), nullptr);
}

bool is_answered(SoupServerMessage* message) {
  return soup_server_message_get_status(message) != 0;
}

// What follows of its body isn't kept.
void refuse(SoupServerMessage* message, const http_answer& what) {
  SoupMessageBody* const body = soup_server_message_get_request_body(message);
  soup_message_body_set_accumulate(body, FALSE);
  soup_message_body_truncate(body);
  reply(message, what);
}

}  // namespace

// A request from its headers on, as long as libsoup has the message.
struct http_thread::exchange {
  exchange(size_t& count, whip_question asked) : count_(count), question(std::move(asked)) {
    ++count_;
  }
  exchange(const exchange&) = delete;
  exchange& operator=(const exchange&) = delete;
  ~exchange() { --count_; }

  static exchange* of(SoupServerMessage* message) {
    return static_cast<exchange*>(g_object_get_data(G_OBJECT(message), kExchange));
  }

  size_t& count_;
  whip_question question;
  size_t body_bytes = 0;
};

http_thread::http_thread(std::unique_ptr<http_listener> listener, whip_rules rules,
                         ask_question ask)
    : listener_(std::move(listener)),
      rules_(std::move(rules)),
      ask_(std::move(ask)),
      streams_(*listener_) {
  thread_.post([this] { serve(); });
}

http_thread::~http_thread() {
  thread_.end([this] { finish(); });
}

void http_thread::answer(uint64_t id, http_answer what) {
  thread_.post([this, id, what = std::move(what)] { give(id, what); });
}

void http_thread::session_ended(const std::string& session) {
  thread_.post([this, session] { streams_.end(session); });
}

// ---- The thread ----------------------------------------------------------------------------

void http_thread::serve() {
  // Paths stay encoded: a name may have a slash in it.
  server_.reset(soup_server_new("raw-paths", TRUE, nullptr));
  soup_server_add_early_handler(
      server_.get(), nullptr,
      [](SoupServer* /*server*/, SoupServerMessage* message, const char* /*path*/,
         GHashTable* /*query*/,
         gpointer self) { static_cast<http_thread*>(self)->on_headers(message); },
      this, nullptr);
  soup_server_add_handler(
      server_.get(), nullptr,
      [](SoupServer* /*server*/, SoupServerMessage* message, const char* /*path*/,
         GHashTable* /*query*/,
         gpointer self) { static_cast<http_thread*>(self)->on_request(message); },
      this, nullptr);
  listener_->start(thread_.context(),
                   [this](GIOStream* stream, GSocketAddress* local, GSocketAddress* remote) {
                     soup_server_accept_iostream(server_.get(), stream, local, remote, nullptr);
                   });
  streams_.start(thread_.context());
}

void http_thread::finish() {
  listener_->stop();
  refusing_ = true;
  for (const auto& [id, message] : std::exchange(waiting_, {})) {
    reply(message.get(), in_words(503, kEnds));
    soup_server_message_unpause(message.get());
  }
  streams_.stop();
  thread_.iterate_until([this] { return exchanges_ == 0; }, kLastAnswersMs);
  listener_->cut_all();
  thread_.iterate_until([this] { return listener_->count() == 0; }, kLetGoMs);
  soup_server_disconnect(server_.get());
  server_.reset();
}

void http_thread::give(uint64_t id, const http_answer& what) {
  const auto found = waiting_.find(id);
  if (found == waiting_.end()) return;
  const message_ptr message = std::move(found->second);
  waiting_.erase(found);
  const bool lasts = !what.lasts_with.empty();
  const bool refused = lasts && !streams_.open(message.get(), what.lasts_with);
  reply(message.get(), refused ? too_many_watch() : what);
  soup_server_message_unpause(message.get());
}

// ---- A request -----------------------------------------------------------------------------

void http_thread::on_headers(SoupServerMessage* message) {
  auto verdict = rules_.judge(head_of(message));
  auto* const question = std::get_if<whip_question>(&verdict);
  auto kept = std::make_unique<exchange>(
      exchanges_, question != nullptr ? std::move(*question) : whip_question{});
  g_object_set_data_full(G_OBJECT(message), kExchange, kept.release(),
                         [](gpointer one) { delete static_cast<exchange*>(one); });
  g_signal_connect(message, "got-chunk",
                   G_CALLBACK(+[](SoupServerMessage* from, GBytes* chunk, gpointer self) {
                     static_cast<http_thread*>(self)->on_body_part(from, g_bytes_get_size(chunk));
                   }),
                   this);
  if (refusing_) return refuse(message, in_words(503, kEnds));
  if (question == nullptr) refuse(message, *std::get_if<http_answer>(&verdict));
}

void http_thread::on_body_part(SoupServerMessage* message, size_t bytes) {
  size_t& all = exchange::of(message)->body_bytes;
  all += bytes;
  if (all > kMostReadBytes) return listener_->cut(soup_server_message_get_remote_address(message));
  if (all > static_cast<size_t>(kMostBodyBytes) && !is_answered(message)) {
    refuse(message, too_long());
  }
}

// With all of its body.
void http_thread::on_request(SoupServerMessage* message) {
  if (is_answered(message)) return;
  exchange* const kept = exchange::of(message);
  // libsoup showed nobody its headers.
  if (kept == nullptr) return reply(message, in_words(400, "this is no request of WHIP"));
  whip_question question = std::move(kept->question);
  const bytes_ptr body(soup_message_body_flatten(soup_server_message_get_request_body(message)));
  gsize size = 0;
  const auto* const bytes = static_cast<const char*>(g_bytes_get_data(body.get(), &size));
  if (size > 0) question.body.assign(bytes, size);
  const bool has_body =
      question.what == whip_question::kPublish || question.what == whip_question::kPatch;
  if (has_body && size == 0) {
    return reply(message, in_words(400,
                                   "the body is empty: it should be the SDP of an offer, or a "
                                   "fragment of one"));
  }
  const uint64_t id = ++last_id_;
  soup_server_message_pause(message);
  waiting_.emplace(id, message_ptr(SOUP_SERVER_MESSAGE(g_object_ref(message))));
  ask_(id, question);
}

}  // namespace zelta::core_service
