// SPDX-License-Identifier: Apache-2.0
// A user who publishes by WebRTC, over a UDP socket of their own: a full ICE agent with one
// candidate, DTLS as its client, SRTP, and answers to what is asked for again. It has no thread and
// waits for nothing, so that a hundred of them run on one thread:
//
//     make ─▶ offer() ─▶ begin(answer) ─▶ kChecking ─▶ kHandshaking ─▶ kConnected ─▶ send()
//
// step() is due whenever fd() can be read, and at next_step().
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <netinet/in.h>

#include "base/unique_fd.h"
#include "core_service/media/media_time.h"
#include "core_service/rtp/srtp/srtp_session.h"
#include "core_service/webrtc/certificate.h"
#include "support/webrtc/check.h"
#include "support/webrtc/description.h"
#include "support/webrtc/dtls.h"
#include "support/webrtc/feedback.h"
#include "support/webrtc/srtp_out.h"

namespace zelta::test {

class webrtc_client {
 public:
  using media_time = core_service::media::media_time;

  // How long a payload may be.
  static constexpr size_t kMostPayload = 1300;

  enum class state { kNew, kChecking, kHandshaking, kConnected, kFailed, kClosed };
  struct wishes {
    std::vector<webrtc_source> sources;
    // Whose key is used; may be that of many users.
    std::shared_ptr<const core_service::webrtc::certificate> as;
    std::string profiles = "SRTP_AEAD_AES_128_GCM:SRTP_AES128_CM_SHA1_80";
    bool by_ssrc = false;  // as write_offer() has it
    // What the offer says in place of the certificate's; empty: the truth.
    std::string other_fingerprint;
    // Of the checks that say that the user is still there.
    media_time check_interval = std::chrono::seconds(2);
    uint32_t seed = 1;  // of names and losses
  };
  struct counters {
    uint64_t packets = 0;  // sent, with those that were sent again
    uint64_t bytes = 0;
    uint64_t errors = 0;    // couldn't be sent
    uint64_t lost = 0;      // left out on purpose
    uint64_t asked = 0;     // for packets, by NACK
    uint64_t repeated = 0;  // packets, by RTX
    uint64_t key_frames_asked = 0;
    uint64_t reports = 0;
    uint64_t told_arrived = 0;  // packets, by transport-wide feedback
    uint64_t told_missing = 0;
    uint64_t checks_answered = 0;
    uint64_t checks_refused = 0;
    uint64_t datagrams_in = 0;
  };

  // Null with `error`.
  static std::unique_ptr<webrtc_client> make(wishes wanted, std::string& error);
  webrtc_client(const webrtc_client&) = delete;
  webrtc_client& operator=(const webrtc_client&) = delete;

  const std::string& offer() const { return offer_; }
  const ice_names& own_names() const { return own_; }
  // Goes where the answer says. False with `error`.
  bool begin(const std::string& answer, media_time now, std::string& error);

  int fd() const { return socket_.get(); }
  // Takes what has come, and sends what is due.
  void step(media_time now);
  media_time next_step() const { return next_step_; }

  state is() const { return state_; }
  const std::string& why() const { return why_; }
  const counters& counts() const { return counts_; }
  uint16_t remote_port() const { return ntohs(to_.sin_port); }

  // The other side of the network has another address of this user's from now on.
  bool move(media_time now);
  // Names of before a restart of ICE are replaced.
  void rename(ice_names own, ice_names theirs, media_time now);
  // Leaves out this share of the RTP packets, those that are sent again too.
  void lose(double share) { loss_ = share; }

  // One packet; `header` as of RFC 3550, section 5.1, without extensions, which are put in.
  // `level`: of sound, in dB below the loudest. False when it isn't connected.
  bool send(size_t source, const uint8_t (&header)[12], const uint8_t* payload, size_t size,
            std::optional<uint8_t> level = std::nullopt);
  // RTCP, compound.
  bool send_control(const uint8_t* bytes, size_t size);
  // As it is, whatever the state.
  void send_raw(const uint8_t* bytes, size_t size);
  // Says goodbye (close_notify).
  void leave();

 private:
  struct past_packet {
    bool is = false;
    std::array<uint8_t, 12> header{};
    std::vector<uint8_t> payload;
  };
  struct track {
    webrtc_source is;
    uint16_t again_sequence = 0;
    std::vector<past_packet> past;  // by sequence number; empty: nothing is sent again
  };

  webrtc_client(wishes wanted, ice_names own);

  bool open_socket();
  void check(media_time now);
  void take(const uint8_t* bytes, size_t size, media_time now);
  void take_answer(const uint8_t* bytes, size_t size, media_time now);
  void take_control(const uint8_t* bytes, size_t size);
  void look_at_dtls();
  void repeat(uint32_t ssrc, uint16_t sequence);
  size_t write_extensions(uint8_t* to, size_t mid, std::optional<uint8_t> level);
  // `original`: of one that is sent again.
  bool write(size_t source, const uint8_t* header, std::optional<uint16_t> original,
             const uint8_t* payload, size_t size, std::optional<uint8_t> level);
  void fail(const std::string& why);

  const wishes wanted_;
  std::mt19937 chance_;
  ice_names own_;
  ice_names theirs_;
  std::string offer_;
  base::unique_fd socket_;
  sockaddr_in to_{};
  state state_ = state::kNew;
  std::string why_;
  counters counts_;
  double loss_ = 0;
  check_transaction transaction_{};
  media_time next_check_{};
  media_time next_step_{};
  std::unique_ptr<client_dtls> dtls_;
  std::unique_ptr<core_service::rtp::srtp_session> control_;
  std::unique_ptr<srtp_out> media_;
  std::vector<track> tracks_;
  uint16_t transport_number_ = 0;
  feedback_visitor feedback_;
};

// A line of H.264 that is sent again on request, and one of Opus. `ssrc`: of the first, the others'
// are those behind it.
std::vector<webrtc_source> usual_sources(uint32_t ssrc);

}  // namespace zelta::test
