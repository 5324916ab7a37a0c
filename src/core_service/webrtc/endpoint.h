// SPDX-License-Identifier: Apache-2.0
// Where the WebRTC users of a recording send to: one UDP port, one certificate, one packet thread.
// How offers and answers travel is others' business.
//
// Everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "core_service/media/media_feed.h"
#include "core_service/rtp/packet_plane.h"
#include "core_service/rtp/settings.h"
#include "core_service/webrtc/answer.h"
#include "core_service/webrtc/certificate.h"
#include "core_service/webrtc/offer.h"
#include "core_service/webrtc/peer.h"
#include "core_service/webrtc/transport.h"

namespace zelta::core_service::webrtc {

class endpoint {
 public:
  // At `address` of the machine, "0.0.0.0" or "::" for all that others reach; users are told
  // `reached_at`, addresses split by commas, or where it is empty what it is bound to. The loop is
  // borrowed. Null, with `error`, when there is no port, thread or key.
  static std::unique_ptr<endpoint> open(const std::string& address, const std::string& reached_at,
                                        const rtp::settings& how, base::event_loop& loop,
                                        std::string& error);
  endpoint(const endpoint&) = delete;
  endpoint& operator=(const endpoint&) = delete;
  // Users may outlive it: they say goodbye by what it leaves.
  ~endpoint();

  // What is answered to a new user; none when the machine gives no random bytes.
  std::optional<answer_terms> new_terms();

  struct user {
    std::shared_ptr<media::media_feed> feed;
    std::weak_ptr<peer> sender;  // for the packet thread alone: whoever locks it may end it
    std::shared_ptr<const last_heard> heard;
  };
  struct manner {
    media::media_time patience{};  // who is silent for so long is gone
    bool opens_channel = false;    // as data_channels has it
  };
  // The user of this offer, to whom `agreed` is answered. Notices come on the packet thread, and
  // may come when the endpoint is gone. None, with `error`, when their certificate can't be known.
  std::optional<user> make_user(uint32_t uid, const offer& from, const answer_terms& agreed,
                                const manner& how, peer::notices noticed, std::string& error);

  // New credentials for a user whose connection begins anew (RFC 8445, section 9): `agreed` gets
  // them. False when there are none.
  bool restart_ice(const std::weak_ptr<peer>& whose, const std::string& their_ufrag,
                   answer_terms& agreed);

  media::media_time take_behind() { return plane_->take_behind(); }
  // Packets for which there was no room here since the last call, of all users together. Senders
  // are asked for them.
  uint64_t take_dropped();

 private:
  endpoint(const rtp::settings& how, std::shared_ptr<const certificate> self,
           std::shared_ptr<rtp::packet_plane> plane, std::vector<base::unique_fd> sockets,
           std::vector<answer_terms::place> candidates);

  const rtp::settings rtp_;
  const std::shared_ptr<const certificate> certificate_;
  const std::shared_ptr<rtp::packet_plane> plane_;
  std::shared_ptr<transport> transport_;
  const std::vector<answer_terms::place> candidates_;
  uint64_t sessions_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace zelta::core_service::webrtc
