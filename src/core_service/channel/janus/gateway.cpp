// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/gateway.h"

#include <system_error>
#include <utility>

#include "core_service/channel/janus/json_fields.h"

namespace zelta::core_service::janus {
namespace {

constexpr int kTickMs = 100;
// However fast a gateway ends polls, it isn't asked more often.
constexpr int kPollIntervalMs = 20;
constexpr uint64_t kNoSuchSession = 458;

}  // namespace

gateway::gateway(gateway_place at, credentials shown, limits bounds, base::event_loop& loop,
                 events told)
    : at_(std::move(at)),
      shown_(std::move(shown)),
      limits_(bounds),
      events_(std::move(told)),
      poster_(loop) {}

// The link first: its thread posts.
gateway::~gateway() {
  link_.reset();
}

// ---- The connection ------------------------------------------------------------------------

void gateway::connect() {
  const uint64_t number = ++links_;
  const auto heard = [this, number](std::function<void()> work) {
    poster_.post([this, number, work = std::move(work)] {
      if (link_ && number == links_) work();
    });
  };
  gateway_link::events told;
  told.opened = [this, heard] { heard([this] { on_opened(); }); };
  told.came = [this, heard](const std::string& text) { heard([this, text] { on_text(text); }); };
  told.polled = [this, heard] {
    heard([this] { next_poll_ = {poster_.loop(), kPollIntervalMs, [this] { poll(); }}; });
  };
  told.closed = [this, heard](const std::string& why) { heard([this, why] { end(why); }); };
  opening_ = true;
  open_until_ = clock::now() + limits_.answer;
  tick_ = {poster_.loop(), kTickMs, [this] { tick(); }};
  try {
    link_ = at_.web_socket ? make_web_socket_link(at_, std::move(told))
                           : make_long_poll_link(at_, std::move(told));
  } catch (const std::system_error& e) {
    const std::string why = std::string("no thread is left to speak with it: ") + e.what();
    poster_.post([this, why] { end(why); });
  }
}

void gateway::leave() {
  if (!std::exchange(ready_, false)) return;
  Json::Value request;
  request["janus"] = "destroy";
  ask("destroy", 0, std::move(request), [](const gateway_message&) {});
  session_ = 0;
}

void gateway::abandon(const std::string& why) {
  poster_.post([this, why, number = links_] {
    if (number != links_ || !link_) return;
    leave();
    end(why);
  });
}

void gateway::end(const std::string& why) {
  opening_ = ready_ = false;
  tick_.stop();
  next_poll_.stop();
  pending_.clear();
  link_.reset();
  if (session_ == 0) handles_.clear();
  const auto lost = events_.lost;
  lost("the gateway " + at_.url + " " + why);
}

void gateway::on_opened() {
  opening_ = false;
  open_session();
}

void gateway::open_session() {
  const bool again = session_ != 0;
  const char* const verb = again ? "claim" : "create";
  Json::Value request;
  request["janus"] = verb;
  ask(verb, 0, std::move(request),
      [this, again](const gateway_message& reply) { on_session(reply, again); });
}

void gateway::on_session(const gateway_message& reply, bool again) {
  if (again && reply.code != 0) {
    session_ = 0;
    handles_.clear();
    return open_session();
  }
  if (reply.code != 0) return end("opens no session: " + reply.reason);
  if (!again) session_ = reply.id;
  if (session_ == 0) return end("opens a session without a number: it is no Janus");
  ready_ = true;
  kept_alive_ = clock::now();
  poll();
  const auto ready = events_.ready;
  ready(again);
}

void gateway::poll() {
  next_poll_.stop();
  polled_ = clock::now();
  link_->poll(session_);
}

void gateway::tick() {
  const auto now = clock::now();
  const std::string limit = " for " + std::to_string(limits_.answer.count()) + " ms";
  if (opening_ && now > open_until_) return end("hasn't let us connect" + limit);
  for (const auto& [transaction, one] : pending_) {
    if (now > one.due) return end(std::string("hasn't answered \"") + one.what + "\"" + limit);
  }
  if (!ready_) return;
  if (!at_.web_socket && !next_poll_.runs() && now > polled_ + limits_.poll) {
    return end("hasn't ended a poll for " + std::to_string(limits_.poll.count()) + " ms");
  }
  if (now < kept_alive_ + limits_.keepalive) return;
  kept_alive_ = now;
  Json::Value request;
  request["janus"] = "keepalive";
  ask("keepalive", 0, std::move(request), [this](const gateway_message& reply) {
    if (reply.code == kNoSuchSession) session_ = 0;
    if (reply.code != 0) end("doesn't keep the session: " + reply.reason);
  });
}

// ---- Requests ------------------------------------------------------------------------------

void gateway::ask(const char* what, uint64_t handle, Json::Value request, on_message reply) {
  if (!link_) return;
  const std::string transaction = "r" + std::to_string(++transactions_);
  request["transaction"] = transaction;
  std::string path;
  if (session_ != 0) {
    request["session_id"] = Json::UInt64{session_};
    path = "/" + std::to_string(session_);
  }
  if (handle != 0) {
    request["handle_id"] = Json::UInt64{handle};
    path += "/" + std::to_string(handle);
  }
  if (!shown_.token.empty()) request["token"] = shown_.token;
  if (!shown_.api_secret.empty()) request["apisecret"] = shown_.api_secret;
  pending_[transaction] = {what, clock::now() + limits_.answer, std::move(reply)};
  link_->send(path, json_line(request));
}

void gateway::on_text(const std::string& text) {
  std::string error;
  const auto messages = parse_messages(text, error);
  if (!messages) return end("says what can't be understood: " + error);
  const std::weak_ptr<int> alive = poster_.life();
  const uint64_t number = links_;
  for (const gateway_message& one : *messages) {
    on_message_of(one);
    if (alive.expired() || !link_ || number != links_) return;
  }
}

void gateway::on_message_of(const gateway_message& message) {
  const auto asked = pending_.find(message.transaction);
  if (asked != pending_.end()) {
    // One that is acknowledged gets its reply later; a sign of life gets none.
    if (message.kind == "ack" && asked->second.what != std::string("keepalive")) return;
    const on_message reply = std::move(asked->second.reply);
    pending_.erase(asked);
    return reply(message);
  }
  if (message.kind == "timeout" || (message.kind == "error" && message.code == kNoSuchSession)) {
    session_ = 0;
    return end("has let the session go");
  }
  const auto told = handles_.find(message.sender);
  if (told == handles_.end()) return;
  const on_message to = told->second;
  to(message);
}

}  // namespace zelta::core_service::janus
