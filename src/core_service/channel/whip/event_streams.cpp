// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/whip/event_streams.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include <libsoup/soup.h>

namespace zelta::core_service {
namespace {

// Proxies give up on a connection that has been silent for 30 to 60 s.
constexpr unsigned kCommentEveryMs = 15'000;
// WHATWG HTML, section 9.2.5: a line that begins with a colon is nothing.
constexpr std::string_view kComment = ":\n\n";

void add_comment(SoupServerMessage* message) {
  soup_message_body_append(soup_server_message_get_response_body(message), SOUP_MEMORY_STATIC,
                           kComment.data(), kComment.size());
  soup_server_message_unpause(message);
}

}  // namespace

void event_streams::start(GMainContext* context) {
  timer_.reset(g_timeout_source_new(kCommentEveryMs));
  g_source_set_callback(timer_.get(), on_time, this, nullptr);
  g_source_attach(timer_.get(), context);
}

bool event_streams::open(SoupServerMessage* message, const std::string& session) {
  // First, so that one who comes again needs no more room.
  end(session);
  if (!listener_.hold(soup_server_message_get_remote_address(message))) return false;
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
  soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
  // What was sent isn't kept.
  soup_message_body_set_accumulate(soup_server_message_get_response_body(message), FALSE);
  g_signal_connect(message, "finished", G_CALLBACK(on_finished), this);
  open_[session].reset(SOUP_SERVER_MESSAGE(g_object_ref(message)));
  return true;
}

void event_streams::end(const std::string& session) {
  const auto found = open_.find(session);
  if (found == open_.end()) return;
  message_ptr message = std::move(found->second);
  open_.erase(found);
  complete(std::move(message));
}

void event_streams::stop() {
  timer_.reset();
  for (auto& [session, message] : std::exchange(open_, {})) complete(std::move(message));
}

// A client that doesn't take it has as much time as one that is slow to ask.
void event_streams::complete(message_ptr message) {
  listener_.let_go(soup_server_message_get_remote_address(message.get()));
  soup_message_body_complete(soup_server_message_get_response_body(message.get()));
  soup_server_message_unpause(message.get());
}

gboolean event_streams::on_time(gpointer self) {
  std::vector<message_ptr> all;
  for (const auto& [session, message] : static_cast<event_streams*>(self)->open_) {
    all.emplace_back(SOUP_SERVER_MESSAGE(g_object_ref(message.get())));
  }
  for (const message_ptr& one : all) add_comment(one.get());
  return G_SOURCE_CONTINUE;
}

// Its client is gone, or it was completed.
void event_streams::on_finished(SoupServerMessage* message, gpointer self) {
  auto& open = static_cast<event_streams*>(self)->open_;
  const auto found = std::find_if(
      open.begin(), open.end(), [message](const auto& one) { return one.second.get() == message; });
  if (found != open.end()) open.erase(found);
}

}  // namespace zelta::core_service
