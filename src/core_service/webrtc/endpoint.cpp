// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/endpoint.h"

#include <utility>

#include "core_service/rtp/packet_feed.h"
#include "core_service/rtp/sockets.h"
#include "core_service/webrtc/ice_credentials.h"
#include "core_service/webrtc/local_addresses.h"
#include "core_service/webrtc/sdp_text.h"

namespace zelta::core_service::webrtc {

std::unique_ptr<endpoint> endpoint::open(const std::string& address, const std::string& reached_at,
                                         const rtp::settings& how, base::event_loop& loop,
                                         std::string& error) {
  auto self = certificate::make(error);
  if (!self) return nullptr;
  const std::vector<std::string> own = addresses_of(address);
  rtp::shared_port port = rtp::open_shared_port(own, how.min_port, how.max_port, error);
  if (port.sockets.empty()) return nullptr;
  auto plane = std::make_shared<rtp::packet_plane>(loop);
  if (!plane->thread.runs()) {
    error = "no thread or descriptor is left to receive packets";
    return nullptr;
  }
  std::vector<answer_terms::place> candidates;
  for (const std::string& one : reached_at.empty() ? port.addresses : parts_of(reached_at, ',')) {
    candidates.push_back({one, port.port});
  }
  return std::unique_ptr<endpoint>(new endpoint(how, std::move(self), std::move(plane),
                                                std::move(port.sockets), std::move(candidates)));
}

endpoint::endpoint(const rtp::settings& how, std::shared_ptr<const certificate> self,
                   std::shared_ptr<rtp::packet_plane> plane, std::vector<base::unique_fd> sockets,
                   std::vector<answer_terms::place> candidates)
    : rtp_(how),
      certificate_(std::move(self)),
      plane_(std::move(plane)),
      transport_(std::make_shared<transport>(std::move(sockets), plane_->thread)),
      candidates_(std::move(candidates)) {
  plane_->thread.post([to = transport_] { to->start(); });
}

// The last who holds the transport is on the packet thread.
endpoint::~endpoint() {
  plane_->thread.post([last = std::move(transport_)] {});
}

std::optional<answer_terms> endpoint::new_terms() {
  const auto own = make_ice_credentials();
  if (!own) return std::nullopt;
  answer_terms made;
  made.ufrag = own->ufrag;
  made.password = own->password;
  made.fingerprint = certificate_->fingerprint();
  made.candidates = candidates_;
  made.session_id = ++sessions_;
  made.version = 1;
  return made;
}

std::optional<endpoint::user> endpoint::make_user(uint32_t uid, const offer& from,
                                                  const answer_terms& agreed, const manner& how,
                                                  peer::notices noticed, std::string& error) {
  peer::terms terms;
  terms.uid = uid;
  terms.own = {agreed.ufrag, agreed.password};
  terms.their_ufrag = from.ufrag;
  terms.fingerprint = {from.fingerprint_hash, from.fingerprint};
  terms.as = certificate_;
  terms.patience = how.patience;
  terms.opens_channel = how.opens_channel;
  rtp::packet_feed::prospect known;
  known.lateness = rtp_.jitter_latency;
  for (const offered_line& line : from.lines) {
    if (line.accepted && line.sctp_port) terms.sctp_port = line.sctp_port;
    if (!line.is_media()) continue;
    terms.lines.push_back(line);
    for (auto& [number, of] : terms.lines.back().payloads) of.sent_again = line.nack;
    known.add(line.kind, line.payloads);
  }
  std::shared_ptr<peer> sender;
  // Its units go to the feed, which is made with it.
  auto feed = std::make_shared<rtp::packet_feed>(
      std::move(known), plane_, [&](rtp::sender::events told) -> std::shared_ptr<rtp::sender> {
        sender = peer::make(std::move(terms), rtp_, transport_, plane_->pool, std::move(told),
                            std::move(noticed), error);
        return sender;
      });
  if (!sender) return std::nullopt;
  return user{std::move(feed), sender, sender->heard()};
}

uint64_t endpoint::take_dropped() {
  const uint64_t all = transport_->dropped();
  return all - std::exchange(dropped_, all);
}

bool endpoint::restart_ice(const std::weak_ptr<peer>& whose, const std::string& their_ufrag,
                           answer_terms& agreed) {
  const auto own = make_ice_credentials();
  if (!own) return false;
  agreed.ufrag = own->ufrag;
  agreed.password = own->password;
  ++agreed.version;
  plane_->thread.post([whose, own = *own, their_ufrag] {
    if (const auto alive = whose.lock()) alive->restart_ice(own, their_ufrag);
  });
  return true;
}

}  // namespace zelta::core_service::webrtc
