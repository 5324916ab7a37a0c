// SPDX-License-Identifier: Apache-2.0
// DTLS 1.2 with one peer, as its server, to agree on the keys of SRTP (RFC 5764). One thread; no
// sockets, and told the time.
//
//   make ─▶ kHandshaking ──▶ kConnected ──▶ kClosed    by close() or by the peer
//                 └──────────────┴────────▶ kFailed    why() says it
//
// To be fed from an address whose ICE check has succeeded, so that no cookies are needed: it
// answers with more than it is asked with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core_service/media/media_time.h"
#include "core_service/rtp/settings.h"
#include "core_service/webrtc/datagram_bio.h"
#include "core_service/webrtc/openssl.h"
#include "core_service/webrtc/peer_fingerprint.h"

namespace zelta::core_service::webrtc {

class certificate;

// Whether a datagram is DTLS among what else comes on its port (RFC 7983, section 7).
bool looks_like_dtls(const uint8_t* bytes, size_t size);

class dtls_session {
 public:
  // The longest datagram that it sends.
  static constexpr size_t kMostDatagramBytes = 1200;
  // What a peer may send before it is connected; a handshake that is repeated as often as it can be
  // stays below.
  static constexpr size_t kMostHandshakeBytes = 64UL * 1024;

  // As the offer has it: "sha-256", "AB:CD:...".
  struct fingerprint {
    std::string hash;
    std::string digest;
  };
  // Called from within take(), advance(), send() and close(), with bytes that are valid until they
  // return. None may destroy the session; `data` may send().
  struct events {
    std::function<void(const uint8_t*, size_t)> send;  // one datagram
    std::function<void(const uint8_t*, size_t)> data;  // one record of the peer's; may be empty
  };
  struct srtp_keys {
    rtp::cipher mode;
    rtp::srtp_key in;   // what the peer encrypts with
    rtp::srtp_key out;  // what we do
  };
  enum class state {
    kHandshaking,  // the peer hasn't come yet, or isn't finished
    kConnected,    // its certificate is the expected one, and there are keys
    kFailed,       // why() says it
    kClosed,       // after close(), or the peer's close_notify
  };

  // `expected`: the certificate without which no state is kConnected; sha-1 is refused. Null with
  // `error` when it can't be read, or OpenSSL refuses.
  static std::unique_ptr<dtls_session> make(const std::shared_ptr<const certificate>& self,
                                            const fingerprint& expected, events to,
                                            std::string& error);
  ~dtls_session();
  dtls_session(const dtls_session&) = delete;
  dtls_session& operator=(const dtls_session&) = delete;

  // One datagram. What makes no sense is dropped, as is everything once it failed or was closed.
  void take(const uint8_t* bytes, size_t size, media::media_time now);

  // When advance() should be called to send again what may have been lost; none: nothing is waited
  // for. OpenSSL measures by the wall clock: where that was set back, it is asked again later.
  std::optional<media::media_time> next_deadline() const { return deadline_; }
  // A peer that doesn't answer for about half a minute is kFailed.
  void advance(media::media_time now);

  state is() const { return state_; }
  // In words, of a session that failed or that the peer closed.
  const std::string& why() const { return why_; }
  // None before kConnected, nor once they are forgotten. SRTP_AEAD_AES_128_GCM when the peer offers
  // it, else SRTP_AES128_CM_HMAC_SHA1_80.
  const std::optional<srtp_keys>& keys() const { return keys_; }

  // Once they are where they are needed.
  void forget_keys();

  // One record of ours, kMostDatagramBytes at most with what is added; false before there is a
  // connection, and when OpenSSL refuses.
  bool send(const uint8_t* bytes, size_t size);

  // Tells the peer when there is a session to be ended. Nothing is sent afterwards.
  void close();

 private:
  dtls_session(peer_fingerprint expected, events to);
  bool begin(ssl_ctx_st* context);
  void proceed();
  void judge(int result);
  void connected();
  void read();
  void fail(std::string why);
  std::string failure();
  void note_deadline(media::media_time now);

  const peer_fingerprint expected_;
  const std::function<void(const uint8_t*, size_t)> data_;
  datagram_port port_;
  owned<ssl_st> ssl_;
  state state_ = state::kHandshaking;
  std::string why_;
  std::optional<srtp_keys> keys_;
  std::optional<media::media_time> deadline_;
  size_t handshake_bytes_ = 0;
};

}  // namespace zelta::core_service::webrtc
