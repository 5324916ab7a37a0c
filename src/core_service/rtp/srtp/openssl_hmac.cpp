// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <climits>
#include <cstring>
#include <memory>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <srtp2/auth.h>

#include "core_service/rtp/srtp/openssl_ciphers.h"

namespace zelta::core_service::rtp {
namespace {

constexpr int kDigestBytes = 20;

struct free_context {
  void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};

struct hmac : srtp_auth_t {
  std::unique_ptr<EVP_MAC_CTX, free_context> context;
};

EVP_MAC* algorithm() {
  static EVP_MAC* const found = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  return found;
}

hmac& of(void* state) {
  return *static_cast<hmac*>(state);
}

srtp_err_status_t told(bool done) {
  return done ? srtp_err_status_ok : srtp_err_status_auth_fail;
}

srtp_err_status_t release(srtp_auth_t* auth) {
  delete static_cast<hmac*>(auth);
  return srtp_err_status_ok;
}

srtp_err_status_t set_key(void* state, const uint8_t* key, int size) {
  char digest[] = "SHA1";
  const OSSL_PARAM wanted[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                               OSSL_PARAM_construct_end()};
  return told(EVP_MAC_init(of(state).context.get(), key, static_cast<size_t>(size), wanted) == 1);
}

srtp_err_status_t start(void* state) {
  return told(EVP_MAC_init(of(state).context.get(), nullptr, 0, nullptr) == 1);
}

srtp_err_status_t update(void* state, const uint8_t* bytes, int size) {
  return told(EVP_MAC_update(of(state).context.get(), bytes, static_cast<size_t>(size)) == 1);
}

srtp_err_status_t compute(void* state, const uint8_t* bytes, int size, int tag_size, uint8_t* tag) {
  std::array<uint8_t, kDigestBytes> digest{};
  size_t written = 0;
  if (tag_size > kDigestBytes || update(state, bytes, size) != srtp_err_status_ok ||
      EVP_MAC_final(of(state).context.get(), digest.data(), &written, digest.size()) != 1)
    return srtp_err_status_auth_fail;
  std::memcpy(tag, digest.data(), static_cast<size_t>(tag_size));
  return srtp_err_status_ok;
}

srtp_err_status_t allocate(srtp_auth_t** auth, int key_size, int tag_size);

// RFC 2202, section 3, case 1.
constexpr uint8_t kKey[kDigestBytes] = {11, 11, 11, 11, 11, 11, 11, 11, 11, 11,
                                        11, 11, 11, 11, 11, 11, 11, 11, 11, 11};
constexpr uint8_t kData[] = {'H', 'i', ' ', 'T', 'h', 'e', 'r', 'e'};
constexpr uint8_t kTag[kDigestBytes] = {0xb6, 0x17, 0x31, 0x86, 0x55, 0x05, 0x72, 0x64, 0xe2, 0x8b,
                                        0xc0, 0xb6, 0xfb, 0x37, 0x8c, 0x8e, 0xf1, 0x46, 0xbe, 0x00};
const srtp_auth_test_case_t kKnown = {sizeof kKey, kKey, sizeof kData, kData,
                                      sizeof kTag, kTag, nullptr};

const srtp_auth_type_t kType = {allocate, release,          set_key, compute,       update,
                                start,    "OpenSSL's HMAC", &kKnown, SRTP_HMAC_SHA1};

srtp_err_status_t allocate(srtp_auth_t** auth, int key_size, int tag_size) {
  auto made = std::make_unique<hmac>();
  made->context.reset(EVP_MAC_CTX_new(algorithm()));
  if (!made->context) return srtp_err_status_alloc_fail;
  made->type = &kType;
  made->state = made.get();
  made->key_len = key_size;
  made->out_len = tag_size;
  *auth = made.release();
  return srtp_err_status_ok;
}

}  // namespace

bool use_openssl_hmac() {
  return algorithm() != nullptr &&
         srtp_replace_auth_type(&kType, SRTP_HMAC_SHA1) == srtp_err_status_ok;
}

}  // namespace zelta::core_service::rtp
