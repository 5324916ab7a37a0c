// SPDX-License-Identifier: Apache-2.0
// One sender's ciphers, by libsrtp (RFC 3711, RFC 7714). One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "core_service/rtp/settings.h"

struct srtp_ctx_t_;

namespace zelta::core_service::rtp {

class srtp_session {
 public:
  // What a packet may grow by when it is encrypted.
  static constexpr size_t kMostAdded = 148;

  // `in`: what the sender encrypts with, `out`: what we do; each as long as its mode wants. Null
  // when the library doesn't have the cipher.
  static std::unique_ptr<srtp_session> make(const srtp_key& in, const srtp_key& out);
  ~srtp_session();
  srtp_session(const srtp_session&) = delete;
  srtp_session& operator=(const srtp_session&) = delete;

  // In place; the size that is left. None for what isn't the sender's, or came before.
  std::optional<size_t> decrypt_rtp(uint8_t* bytes, size_t size);
  std::optional<size_t> decrypt_rtcp(uint8_t* bytes, size_t size);
  // In place; kMostAdded bytes of room are needed behind.
  std::optional<size_t> encrypt_rtcp(uint8_t* bytes, size_t size);

 private:
  srtp_session(srtp_ctx_t_* in, srtp_ctx_t_* out) : in_(in), out_(out) {}

  srtp_ctx_t_* const in_;
  srtp_ctx_t_* const out_;
};

}  // namespace zelta::core_service::rtp
