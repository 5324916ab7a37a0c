// SPDX-License-Identifier: Apache-2.0
#include "support/webrtc/srtp_out.h"

#include <vector>

#include <srtp2/srtp.h>

namespace zelta::test {

using core_service::rtp::cipher;

std::unique_ptr<srtp_out> srtp_out::make(const core_service::rtp::srtp_key& key) {
  std::vector<uint8_t> bytes = key.key_and_salt;
  srtp_policy_t policy{};
  for (srtp_crypto_policy_t* const one : {&policy.rtp, &policy.rtcp}) {
    if (key.mode == cipher::kAes128Gcm) {
      srtp_crypto_policy_set_aes_gcm_128_16_auth(one);
    } else {
      srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(one);
    }
  }
  policy.ssrc.type = ssrc_any_outbound;
  policy.key = bytes.data();
  srtp_t made = nullptr;
  if (srtp_create(&made, &policy) != srtp_err_status_ok) return nullptr;
  return std::unique_ptr<srtp_out>(new srtp_out(made));
}

size_t srtp_out::encrypt(uint8_t* packet, size_t size) {
  int length = static_cast<int>(size);
  if (srtp_protect(session_.get(), packet, &length) != srtp_err_status_ok) return 0;
  return static_cast<size_t>(length);
}

void srtp_out::release::operator()(srtp_ctx_t_* one) const {
  srtp_dealloc(one);
}

}  // namespace zelta::test
