// SPDX-License-Identifier: Apache-2.0
// DTLS as its client (RFC 8827), to agree on the keys of SRTP. One thread; no sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "core_service/media/media_time.h"
#include "core_service/rtp/settings.h"
#include "core_service/webrtc/certificate.h"
#include "core_service/webrtc/datagram_bio.h"
#include "core_service/webrtc/peer_fingerprint.h"

namespace zelta::test {

class client_dtls {
 public:
  enum class state { kHandshaking, kConnected, kFailed, kClosed };
  struct srtp_keys {
    core_service::rtp::srtp_key in;   // what the server encrypts with
    core_service::rtp::srtp_key out;  // what we do
  };

  // `profiles`: of use_srtp, as OpenSSL names them. `expected`: the server's sha-256, without which
  // it fails. `send` is called from within the other calls. Null with `error`.
  static std::unique_ptr<client_dtls> make(
      std::shared_ptr<const core_service::webrtc::certificate> as, const std::string& profiles,
      const std::string& expected, std::function<void(const uint8_t*, size_t)> send,
      std::string& error);
  client_dtls(const client_dtls&) = delete;
  client_dtls& operator=(const client_dtls&) = delete;
  ~client_dtls();

  void begin() { proceed(); }
  void take(const uint8_t* bytes, size_t size);
  // What may have been lost is sent again, if it is time.
  void advance();
  // How long until advance() is due; none: it isn't.
  std::optional<core_service::media::media_time> timeout() const;
  void close();

  state is() const { return state_; }
  const std::string& why() const { return why_; }
  // Once it is connected.
  const std::optional<srtp_keys>& keys() const { return keys_; }

 private:
  client_dtls(std::shared_ptr<const core_service::webrtc::certificate> as,
              core_service::webrtc::peer_fingerprint expected)
      : as_(std::move(as)), expected_(std::move(expected)) {}
  void proceed();
  void judge(int result);
  void export_keys();

  const std::shared_ptr<const core_service::webrtc::certificate> as_;
  const core_service::webrtc::peer_fingerprint expected_;
  core_service::webrtc::datagram_port port_;
  core_service::webrtc::owned<ssl_ctx_st> context_;
  core_service::webrtc::owned<ssl_st> ssl_;
  state state_ = state::kHandshaking;
  std::string why_;
  std::optional<srtp_keys> keys_;
};

}  // namespace zelta::test
