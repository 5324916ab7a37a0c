// SPDX-License-Identifier: Apache-2.0
// Encrypts what one SSRC sends, AES_CM_128_HMAC_SHA1_80 (RFC 3711), if this is built with libsrtp2.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zelta::crowd {

// Key and salt of `base64`; empty when it isn't those.
std::vector<uint8_t> srtp_key(const std::string& base64);

class srtp_sender {
 public:
  // What a packet grows by at most; the buffers must have room for it.
  static constexpr size_t kGrowth = 32;

  // Null when there is no such encryption here.
  static std::unique_ptr<srtp_sender> make(const std::vector<uint8_t>& key);
  virtual ~srtp_sender() = default;
  // In place. The new size, 0 when it can't be done.
  virtual size_t protect(uint8_t* rtp, size_t size) = 0;
  virtual size_t protect_rtcp(uint8_t* rtcp, size_t size) = 0;
};

}  // namespace zelta::crowd
