// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <cstring>
#include <memory>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <srtp2/cipher.h>

#include "core_service/rtp/srtp/openssl_ciphers.h"

namespace zelta::core_service::rtp {
namespace {

constexpr size_t kBlockBytes = 16;
constexpr int kCounterSaltBytes = 14;  // RFC 3711, section 4.1.1
constexpr int kGcmSaltBytes = 12;      // RFC 7714, section 8.1

struct free_context {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

struct aes : srtp_cipher_t {
  aes() = default;
  aes(const aes&) = delete;
  aes& operator=(const aes&) = delete;
  ~aes() { OPENSSL_cleanse(offset.data(), offset.size()); }

  std::unique_ptr<EVP_CIPHER_CTX, free_context> context;
  const EVP_CIPHER* algorithm_used = nullptr;
  // Of counter mode: the salt, and two bytes in which the blocks are counted.
  std::array<uint8_t, kBlockBytes> offset{};
  int tag_bytes = 0;
};

aes& of(void* state) {
  return *static_cast<aes*>(state);
}

srtp_err_status_t told(bool done) {
  return done ? srtp_err_status_ok : srtp_err_status_cipher_fail;
}

// libsrtp counts the salt to the key. The algorithm, which `type` names as OpenSSL does, is fetched
// once: that costs more than to encrypt a packet.
template <const srtp_cipher_type_t& type, int salt_bytes>
srtp_err_status_t make(srtp_cipher_t** cipher, int key_size, int tag_size) {
  static const EVP_CIPHER* const algorithm = EVP_CIPHER_fetch(nullptr, type.description, nullptr);
  if (algorithm == nullptr || key_size != EVP_CIPHER_get_key_length(algorithm) + salt_bytes)
    return srtp_err_status_bad_param;
  auto made = std::make_unique<aes>();
  made->context.reset(EVP_CIPHER_CTX_new());
  if (!made->context) return srtp_err_status_alloc_fail;
  made->algorithm_used = algorithm;
  made->tag_bytes = tag_size;
  made->type = &type;
  made->state = made.get();
  made->algorithm = static_cast<int>(type.id);
  made->key_len = key_size;
  *cipher = made.release();
  return srtp_err_status_ok;
}

srtp_err_status_t release(srtp_cipher_t* cipher) {
  delete static_cast<aes*>(cipher);
  return srtp_err_status_ok;
}

srtp_err_status_t set_key(void* state, const uint8_t* key) {
  const aes& cipher = of(state);
  return told(EVP_CipherInit_ex2(cipher.context.get(), cipher.algorithm_used, key, nullptr, 1,
                                 nullptr) == 1);
}

srtp_err_status_t crypt(void* state, uint8_t* bytes, unsigned* size) {
  int written = 0;
  return told(EVP_CipherUpdate(of(state).context.get(), bytes, &written, bytes,
                               static_cast<int>(*size)) == 1);
}

// For libsrtp, whose type for what it only reads isn't const.
constexpr uint8_t kZeros[2 * kBlockBytes] = {};
uint8_t no_index[kBlockBytes] = {};
uint8_t gcm_iv[] = {0xca, 0xfe, 0xba, 0xbe, 0xfa, 0xce, 0xdb, 0xad, 0xde, 0xca, 0xf8, 0x88};

// Counter mode.

srtp_err_status_t set_counter_key(void* state, const uint8_t* key) {
  aes& cipher = of(state);
  const int key_bytes = EVP_CIPHER_get_key_length(cipher.algorithm_used);
  std::memcpy(cipher.offset.data(), key + key_bytes, kCounterSaltBytes);
  return set_key(state, key);
}

// Decrypting is encrypting in this mode, whichever `direction` is.
srtp_err_status_t set_counter(void* state, uint8_t* iv, srtp_cipher_direction_t /*direction*/) {
  aes& cipher = of(state);
  std::array<uint8_t, kBlockBytes> counter = cipher.offset;
  for (size_t i = 0; i < kBlockBytes; ++i) counter[i] ^= iv[i];
  return told(
      EVP_CipherInit_ex2(cipher.context.get(), nullptr, nullptr, counter.data(), 1, nullptr) == 1);
}

template <size_t kKey, size_t kStream>
constexpr srtp_cipher_test_case_t counter_case(const uint8_t (&key)[kKey],
                                               const uint8_t (&stream)[kStream]) {
  return {kKey, key, no_index, sizeof kZeros, kZeros, kStream, stream, 0, nullptr, 0, nullptr};
}

// RFC 3711, appendix B.2.
constexpr uint8_t kCounter128Key[] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6, 0xab, 0xf7,
                                      0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c, 0xf0, 0xf1, 0xf2, 0xf3,
                                      0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd};
constexpr uint8_t kCounter128Stream[] = {
    0xe0, 0x3e, 0xad, 0x09, 0x35, 0xc9, 0x5e, 0x80, 0xe1, 0x66, 0xb1, 0x6d, 0xd9, 0x2b, 0x4e, 0xb4,
    0xd2, 0x35, 0x13, 0x16, 0x2b, 0x02, 0xd0, 0xf7, 0x2a, 0x43, 0xa2, 0xfe, 0x4a, 0x5f, 0x97, 0xab};
const srtp_cipher_test_case_t kCounter128Known = counter_case(kCounter128Key, kCounter128Stream);

// RFC 6188, section 7.1.
constexpr uint8_t kCounter256Key[] = {
    0x57, 0xf8, 0x2f, 0xe3, 0x61, 0x3f, 0xd1, 0x70, 0xa8, 0x5e, 0xc9, 0x3c, 0x40, 0xb1, 0xf0, 0x92,
    0x2e, 0xc4, 0xcb, 0x0d, 0xc0, 0x25, 0xb5, 0x82, 0x72, 0x14, 0x7c, 0xc4, 0x38, 0x94, 0x4a, 0x98,
    0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd};
constexpr uint8_t kCounter256Stream[] = {
    0x92, 0xbd, 0xd2, 0x8a, 0x93, 0xc3, 0xf5, 0x25, 0x11, 0xc6, 0x77, 0xd0, 0x8b, 0x55, 0x15, 0xa4,
    0x9d, 0xa7, 0x1b, 0x23, 0x78, 0xa8, 0x54, 0xf6, 0x70, 0x50, 0x75, 0x6d, 0xed, 0x16, 0x5b, 0xac};
const srtp_cipher_test_case_t kCounter256Known = counter_case(kCounter256Key, kCounter256Stream);

extern const srtp_cipher_type_t kCounter128;
extern const srtp_cipher_type_t kCounter256;
const srtp_cipher_type_t kCounter128 = {make<kCounter128, kCounterSaltBytes>,
                                        release,
                                        set_counter_key,
                                        nullptr,
                                        crypt,
                                        crypt,
                                        set_counter,
                                        nullptr,
                                        "AES-128-CTR",
                                        &kCounter128Known,
                                        SRTP_AES_ICM_128};
const srtp_cipher_type_t kCounter256 = {make<kCounter256, kCounterSaltBytes>,
                                        release,
                                        set_counter_key,
                                        nullptr,
                                        crypt,
                                        crypt,
                                        set_counter,
                                        nullptr,
                                        "AES-256-CTR",
                                        &kCounter256Known,
                                        SRTP_AES_ICM_256};

// Galois/Counter Mode.

srtp_err_status_t set_gcm_iv(void* state, uint8_t* iv, srtp_cipher_direction_t direction) {
  return told(EVP_CipherInit_ex2(of(state).context.get(), nullptr, nullptr, iv,
                                 direction == srtp_direction_encrypt ? 1 : 0, nullptr) == 1);
}

srtp_err_status_t add_clear_bytes(void* state, const uint8_t* bytes, uint32_t size) {
  int written = 0;
  return told(EVP_CipherUpdate(of(state).context.get(), nullptr, &written, bytes,
                               static_cast<int>(size)) == 1);
}

srtp_err_status_t get_tag(void* state, uint8_t* tag, uint32_t* size) {
  const aes& cipher = of(state);
  int written = 0;
  *size = static_cast<uint32_t>(cipher.tag_bytes);
  return told(
      EVP_CipherFinal_ex(cipher.context.get(), tag, &written) == 1 &&
      EVP_CIPHER_CTX_ctrl(cipher.context.get(), EVP_CTRL_AEAD_GET_TAG, cipher.tag_bytes, tag) == 1);
}

// The tag stands behind what is encrypted, and is counted in `size` before but not after.
srtp_err_status_t decrypt_gcm(void* state, uint8_t* bytes, unsigned* size) {
  const aes& cipher = of(state);
  const auto tag_bytes = static_cast<unsigned>(cipher.tag_bytes);
  if (*size < tag_bytes) return srtp_err_status_bad_param;
  *size -= tag_bytes;
  int written = 0;
  const bool genuine = EVP_CIPHER_CTX_ctrl(cipher.context.get(), EVP_CTRL_AEAD_SET_TAG,
                                           cipher.tag_bytes, bytes + *size) == 1 &&
                       EVP_CipherUpdate(cipher.context.get(), bytes, &written, bytes,
                                        static_cast<int>(*size)) == 1 &&
                       EVP_CipherFinal_ex(cipher.context.get(), bytes + *size, &written) == 1;
  return genuine ? srtp_err_status_ok : srtp_err_status_auth_fail;
}

// Cases 4 and 16 of the paper that proposed the mode (McGrew and Viega, 2005), with the salt that
// libsrtp counts to the key.
constexpr uint8_t kGcmClear[] = {
    0xd9, 0x31, 0x32, 0x25, 0xf8, 0x84, 0x06, 0xe5, 0xa5, 0x59, 0x09, 0xc5, 0xaf, 0xf5, 0x26,
    0x9a, 0x86, 0xa7, 0xa9, 0x53, 0x15, 0x34, 0xf7, 0xda, 0x2e, 0x4c, 0x30, 0x3d, 0x8a, 0x31,
    0x8a, 0x72, 0x1c, 0x3c, 0x0c, 0x95, 0x95, 0x68, 0x09, 0x53, 0x2f, 0xcf, 0x0e, 0x24, 0x49,
    0xa6, 0xb5, 0x25, 0xb1, 0x6a, 0xed, 0xf5, 0xaa, 0x0d, 0xe6, 0x57, 0xba, 0x63, 0x7b, 0x39};
constexpr uint8_t kGcmAdded[] = {0xfe, 0xed, 0xfa, 0xce, 0xde, 0xad, 0xbe, 0xef, 0xfe, 0xed,
                                 0xfa, 0xce, 0xde, 0xad, 0xbe, 0xef, 0xab, 0xad, 0xda, 0xd2};

template <size_t kKey, size_t kResult>
constexpr srtp_cipher_test_case_t gcm_case(const uint8_t (&key)[kKey],
                                           const uint8_t (&result)[kResult]) {
  return {kKey,      key,         gcm_iv, sizeof kGcmClear,
          kGcmClear, kResult,     result, sizeof kGcmAdded,
          kGcmAdded, kBlockBytes, nullptr};
}

constexpr uint8_t kGcm128Key[] = {0xfe, 0xff, 0xe9, 0x92, 0x86, 0x65, 0x73, 0x1c, 0x6d, 0x6a,
                                  0x8f, 0x94, 0x67, 0x30, 0x83, 0x08, 0x00, 0x00, 0x00, 0x00,
                                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
constexpr uint8_t kGcm128Result[] = {
    0x42, 0x83, 0x1e, 0xc2, 0x21, 0x77, 0x74, 0x24, 0x4b, 0x72, 0x21, 0xb7, 0x84, 0xd0, 0xd4, 0x9c,
    0xe3, 0xaa, 0x21, 0x2f, 0x2c, 0x02, 0xa4, 0xe0, 0x35, 0xc1, 0x7e, 0x23, 0x29, 0xac, 0xa1, 0x2e,
    0x21, 0xd5, 0x14, 0xb2, 0x54, 0x66, 0x93, 0x1c, 0x7d, 0x8f, 0x6a, 0x5a, 0xac, 0x84, 0xaa, 0x05,
    0x1b, 0xa3, 0x0b, 0x39, 0x6a, 0x0a, 0xac, 0x97, 0x3d, 0x58, 0xe0, 0x91, 0x5b, 0xc9, 0x4f, 0xbc,
    0x32, 0x21, 0xa5, 0xdb, 0x94, 0xfa, 0xe9, 0x5a, 0xe7, 0x12, 0x1a, 0x47};
const srtp_cipher_test_case_t kGcm128Known = gcm_case(kGcm128Key, kGcm128Result);

constexpr uint8_t kGcm256Key[] = {0xfe, 0xff, 0xe9, 0x92, 0x86, 0x65, 0x73, 0x1c, 0x6d, 0x6a, 0x8f,
                                  0x94, 0x67, 0x30, 0x83, 0x08, 0xfe, 0xff, 0xe9, 0x92, 0x86, 0x65,
                                  0x73, 0x1c, 0x6d, 0x6a, 0x8f, 0x94, 0x67, 0x30, 0x83, 0x08, 0x00,
                                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
constexpr uint8_t kGcm256Result[] = {
    0x52, 0x2d, 0xc1, 0xf0, 0x99, 0x56, 0x7d, 0x07, 0xf4, 0x7f, 0x37, 0xa3, 0x2a, 0x84, 0x42, 0x7d,
    0x64, 0x3a, 0x8c, 0xdc, 0xbf, 0xe5, 0xc0, 0xc9, 0x75, 0x98, 0xa2, 0xbd, 0x25, 0x55, 0xd1, 0xaa,
    0x8c, 0xb0, 0x8e, 0x48, 0x59, 0x0d, 0xbb, 0x3d, 0xa7, 0xb0, 0x8b, 0x10, 0x56, 0x82, 0x88, 0x38,
    0xc5, 0xf6, 0x1e, 0x63, 0x93, 0xba, 0x7a, 0x0a, 0xbc, 0xc9, 0xf6, 0x62, 0x76, 0xfc, 0x6e, 0xce,
    0x0f, 0x4e, 0x17, 0x68, 0xcd, 0xdf, 0x88, 0x53, 0xbb, 0x2d, 0x55, 0x1b};
const srtp_cipher_test_case_t kGcm256Known = gcm_case(kGcm256Key, kGcm256Result);

extern const srtp_cipher_type_t kGcm128;
extern const srtp_cipher_type_t kGcm256;
const srtp_cipher_type_t kGcm128 = {make<kGcm128, kGcmSaltBytes>,
                                    release,
                                    set_key,
                                    add_clear_bytes,
                                    crypt,
                                    decrypt_gcm,
                                    set_gcm_iv,
                                    get_tag,
                                    "AES-128-GCM",
                                    &kGcm128Known,
                                    SRTP_AES_GCM_128};
const srtp_cipher_type_t kGcm256 = {make<kGcm256, kGcmSaltBytes>,
                                    release,
                                    set_key,
                                    add_clear_bytes,
                                    crypt,
                                    decrypt_gcm,
                                    set_gcm_iv,
                                    get_tag,
                                    "AES-256-GCM",
                                    &kGcm256Known,
                                    SRTP_AES_GCM_256};

bool use(const srtp_cipher_type_t& type) {
  return srtp_replace_cipher_type(&type, type.id) == srtp_err_status_ok;
}

}  // namespace

bool use_openssl_counter_mode() {
  const bool first = use(kCounter128);
  return use(kCounter256) && first;
}

bool use_openssl_gcm() {
  const bool first = use(kGcm128);
  return use(kGcm256) && first;
}

bool use_openssl_ciphers() {
  const bool aes_used = use_openssl_counter_mode();
  const bool gcm_used = use_openssl_gcm();
  return use_openssl_hmac() && aes_used && gcm_used;
}

}  // namespace zelta::core_service::rtp
