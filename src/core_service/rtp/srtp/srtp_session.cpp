// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/srtp/srtp_session.h"

#include <vector>

#include <srtp2/srtp.h>

#include "core_service/rtp/srtp/openssl_ciphers.h"

namespace zelta::core_service::rtp {
namespace {

// The library's own beginning, once a process. Ciphers that stay its own are slower, not less.
bool is_ready() {
  static const bool ready = [] {
    if (srtp_init() != srtp_err_status_ok) return false;
    use_openssl_ciphers();
    return true;
  }();
  return ready;
}

void set_cipher(cipher mode, srtp_crypto_policy_t& rtp, srtp_crypto_policy_t& rtcp) {
  switch (mode) {
    case cipher::kAes128CmSha1_80:
      srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&rtp);
      srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&rtcp);
      break;
    case cipher::kAes128Gcm:
      srtp_crypto_policy_set_aes_gcm_128_16_auth(&rtp);
      srtp_crypto_policy_set_aes_gcm_128_16_auth(&rtcp);
      break;
    case cipher::kAes256Gcm:
      srtp_crypto_policy_set_aes_gcm_256_16_auth(&rtp);
      srtp_crypto_policy_set_aes_gcm_256_16_auth(&rtcp);
      break;
  }
}

srtp_t create(const srtp_key& key, srtp_ssrc_type_t direction) {
  std::vector<uint8_t> bytes = key.key_and_salt;
  srtp_policy_t policy{};
  set_cipher(key.mode, policy.rtp, policy.rtcp);
  policy.ssrc.type = direction;
  policy.key = bytes.data();
  policy.window_size = 1024;
  srtp_t made = nullptr;
  return srtp_create(&made, &policy) == srtp_err_status_ok ? made : nullptr;
}

template <class Function>
std::optional<size_t> apply(Function function, srtp_t session, uint8_t* bytes, size_t size) {
  int length = static_cast<int>(size);
  if (function(session, bytes, &length) != srtp_err_status_ok) return std::nullopt;
  return static_cast<size_t>(length);
}

}  // namespace

std::unique_ptr<srtp_session> srtp_session::make(const srtp_key& in_key, const srtp_key& out_key) {
  if (!is_ready()) return nullptr;
  srtp_t const in = create(in_key, ssrc_any_inbound);
  srtp_t const out = create(out_key, ssrc_any_outbound);
  std::unique_ptr<srtp_session> made(new srtp_session(in, out));
  return in != nullptr && out != nullptr ? std::move(made) : nullptr;
}

srtp_session::~srtp_session() {
  if (in_ != nullptr) srtp_dealloc(in_);
  if (out_ != nullptr) srtp_dealloc(out_);
}

std::optional<size_t> srtp_session::decrypt_rtp(uint8_t* bytes, size_t size) {
  return apply(srtp_unprotect, in_, bytes, size);
}

std::optional<size_t> srtp_session::decrypt_rtcp(uint8_t* bytes, size_t size) {
  return apply(srtp_unprotect_rtcp, in_, bytes, size);
}

std::optional<size_t> srtp_session::encrypt_rtcp(uint8_t* bytes, size_t size) {
  return apply(srtp_protect_rtcp, out_, bytes, size);
}

}  // namespace zelta::core_service::rtp
