// SPDX-License-Identifier: Apache-2.0
// One user who sends by WebRTC: ICE as its lite end (RFC 8445), DTLS as its server (RFC 8827),
// then SRTP for all media lines together.
//
//     transport ─▶ STUN ─▶ answered            ─▶ DTLS ─▶ keys
//                                                  ─▶ data channels ─▶ text
//               ─▶ SRTP ─▶ whose line ─▶ line ─▶ units
//
// Made on any thread; everything else on the packet thread, its destruction too.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core_service/rtp/line.h"
#include "core_service/rtp/sender.h"
#include "core_service/rtp/srtp/srtp_session.h"
#include "core_service/rtp/transport_feedback.h"
#include "core_service/webrtc/bundle.h"
#include "core_service/webrtc/data_channels.h"
#include "core_service/webrtc/dtls_session.h"
#include "core_service/webrtc/ice_credentials.h"
#include "core_service/webrtc/last_heard.h"
#include "core_service/webrtc/offer.h"
#include "core_service/webrtc/stun.h"
#include "core_service/webrtc/transport.h"

namespace zelta::core_service::webrtc {

class peer : public rtp::sender, public rtp::packet_receiver, public transport_user {
 public:
  struct terms {
    uint32_t uid = 0;                   // who is to blame if this is the end of the process
    std::vector<offered_line> lines;    // those of media that are received
    std::optional<uint16_t> sctp_port;  // of data channels; none: there won't be any
    bool opens_channel = false;         // as data_channels has it
    ice_credentials own;
    std::string their_ufrag;
    dtls_session::fingerprint fingerprint;
    std::shared_ptr<const certificate> as;
    // Who has been silent for so long is gone.
    media::media_time patience{};
  };
  // Why one has ended whose feed was stopped.
  static constexpr const char* kLetGo = "is let go";
  // Both once at most.
  struct notices {
    std::function<void()> connected;
    std::function<void(const std::string& why)> ended;
  };

  // Null, with `error` in words. The pool is borrowed.
  static std::shared_ptr<peer> make(terms agreed, const rtp::settings& how,
                                    std::shared_ptr<transport> by, media::byte_pool& pool,
                                    rtp::sender::events told, notices noticed, std::string& error);
  ~peer() override;
  peer(const peer&) = delete;
  peer& operator=(const peer&) = delete;

  void start() override;
  bool stop(media::media_time read_until) override;
  void request_key_frames() override;

  // A new user name and password, from the next checks on; the old are good until then (RFC 8445,
  // section 2.5).
  void restart_ice(ice_credentials own, std::string their_ufrag);
  // Any thread; outlives the user, who then isn't heard any more.
  std::shared_ptr<const last_heard> heard() const { return heard_; }

  bool on_check(const stun_message& check, const rtp::datagram& one, bool taken) override;
  bool is_there() const override;
  void on_packet(const rtp::datagram& one) override;
  // Nothing comes here: the transport has the sockets.
  void on_datagram(const rtp::datagram& /*one*/) override {}
  void on_wake(media::media_time now) override;

 private:
  peer(terms agreed, const rtp::settings& how, std::shared_ptr<transport> by,
       media::byte_pool& pool, rtp::sender::events told, notices noticed);

  struct name {
    ice_credentials own;
    std::string theirs;
  };

  void answer_check(const stun_message& check, const path& from, int error, const char* reason,
                    const std::string& password);
  void on_dtls(const rtp::datagram& one);
  void look_at_dtls();
  void on_data(const uint8_t* bytes, size_t size);
  void open_channels();
  void on_rtp(const rtp::datagram& one);
  void on_rtcp(const rtp::datagram& one);
  bool send_control(rtp::control_bytes& bytes, size_t size);
  void send_transport_feedback(media::media_time now);
  void end(const std::string& why);
  void plan_wake(media::media_time now);

  const terms terms_;
  const std::shared_ptr<transport> transport_;
  notices notices_;
  rtp::line_commons commons_;
  std::deque<rtp::line> lines_;
  bundle bundle_;
  rtp::transport_feedback arrivals_;
  int transport_extension_ = 0;
  // One that the sender knows: senders pass over feedback that names none of theirs, although it is
  // about all of them.
  uint32_t source_ = 0;
  // The name of the present checks, and the one that a restart has brought.
  std::deque<name> names_;
  path path_;
  std::unique_ptr<dtls_session> dtls_;
  std::unique_ptr<rtp::srtp_session> ciphers_;
  std::unique_ptr<data_channels> channels_;
  bool channels_tried_ = false;
  media::media_time channels_due_{};
  media::media_time data_came_{};
  std::set<uint32_t> reporters_;  // of RTCP, each of which costs the ciphers a state
  const std::shared_ptr<last_heard> heard_ = std::make_shared<last_heard>();
  media::media_time begun_{};
  media::media_time reported_{};
  media::media_time feedback_sent_{};
  bool arrived_ = false;  // since then
  bool running_ = false;
  bool ended_ = false;
};

}  // namespace zelta::core_service::webrtc
