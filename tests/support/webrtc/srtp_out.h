// SPDX-License-Identifier: Apache-2.0
// Encrypts the RTP of one user who sends (RFC 3711, RFC 7714). One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core_service/rtp/settings.h"

struct srtp_ctx_t_;

namespace zelta::test {

class srtp_out {
 public:
  // What a packet grows by at most; the buffer must have room for it.
  static constexpr size_t kMostAdded = 148;

  // Once libsrtp has been set up, which any srtp_session does. Null when there is no such cipher.
  static std::unique_ptr<srtp_out> make(const core_service::rtp::srtp_key& key);

  // In place. The new size; 0 when it can't be done.
  size_t encrypt(uint8_t* packet, size_t size);

 private:
  struct release {
    void operator()(srtp_ctx_t_* one) const;
  };
  explicit srtp_out(srtp_ctx_t_* session) : session_(session) {}

  const std::unique_ptr<srtp_ctx_t_, release> session_;
};

}  // namespace zelta::test
