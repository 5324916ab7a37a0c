// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/whip/whip_server.h"

#include <system_error>
#include <utility>

#include "core_service/channel/http_listener.h"
#include "core_service/channel/whip/answers.h"
#include "core_service/channel/whip/http_thread.h"
#include "core_service/channel/whip/server_certificate.h"
#include "core_service/channel/whip/whip_rules.h"

namespace zelta::core_service {
namespace {

// Of the process's descriptors most are for users who are recorded.
constexpr size_t kShareOfDescriptors = 8;

// Whom nobody reaches but by the machine's own browsers, which trust it without a certificate.
bool is_loopback(const std::string& address) {
  const glib_ptr<GInetAddress> parsed(g_inet_address_new_from_string(address.c_str()));
  return parsed && g_inet_address_get_is_loopback(parsed.get()) != FALSE;
}

}  // namespace

whip_server::whip_server(base::event_loop& loop, publishers& asked, int port)
    : publishers_(asked), port_(port), poster_(loop) {}

// The thread first: it posts.
whip_server::~whip_server() {
  http_.reset();
}

std::unique_ptr<whip_server> whip_server::start(const whip_terms& terms, base::event_loop& loop,
                                                publishers& asked, const base::logger& log,
                                                std::string& error) {
  glib_ptr<GTlsCertificate> certificate;
  if (!terms.certificate.empty() || !terms.key.empty()) {
    certificate = load_certificate(terms.certificate, terms.key, error);
    if (!certificate) return nullptr;
  }
  auto listener =
      http_listener::make(terms.address, terms.port, std::move(certificate),
                          http_listener::limits::of_descriptors(kShareOfDescriptors), error);
  if (!listener) return nullptr;
  const bool secure = listener->is_secure();
  whip_rules rules(terms.channel, terms.token);
  const std::string path = rules.channel_path();
  std::unique_ptr<whip_server> server(new whip_server(loop, asked, listener->port()));
  whip_server* const self = server.get();
  try {
    server->http_ = std::make_unique<http_thread>(
        std::move(listener), std::move(rules), [self](uint64_t id, const whip_question& question) {
          self->poster_.post([self, id, question] {
            const std::weak_ptr<int> alive = self->poster_.life();
            http_answer answer = answer_of(self->publishers_, question);
            if (!alive.expired()) self->http_->answer(id, std::move(answer));
          });
        });
  } catch (const std::system_error& e) {
    error = std::string("no thread is left to serve HTTP: ") + e.what();
    return nullptr;
  }
  log.notice(std::string("users publish by ") + (secure ? "HTTPS" : "HTTP") + " at port " +
             std::to_string(server->port_) + ", " + path + "/NAME; the page for it is " + path);
  if (!secure && !is_loopback(terms.address)) {
    log.warn(
        "without whip.certificate and whip.key browsers give the page a camera on this "
        "machine alone, at localhost");
  }
  return server;
}

void whip_server::session_ended(const std::string& session) {
  http_->session_ended(session);
}

}  // namespace zelta::core_service
