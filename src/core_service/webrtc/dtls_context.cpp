// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/dtls_context.h"

#include <openssl/srtp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "core_service/webrtc/peer_fingerprint.h"

namespace zelta::core_service::webrtc {
namespace {

// Of those that go with a key of ECDSA; the first is the one that every end has (RFC 8827, section
// 6.5). GCM alone: dtls_session knows how short its records may be.
constexpr const char* kCiphers = "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384";
constexpr const char* kGroups = "X25519:P-256:P-384";
// The best one first. GCM costs about half of what counter mode and SHA-1 do (RFC 7714, RFC 5764).
constexpr const char* kSrtpProfiles = "SRTP_AEAD_AES_128_GCM:SRTP_AES128_CM_SHA1_80";

// What a peer's messages may take in memory, ten of them at a time when they come out of order.
constexpr long kMostCertificateBytes = 16L * 1024;

constexpr uint64_t kOptions = SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION |
                              SSL_OP_NO_QUERY_MTU | SSL_OP_CIPHER_SERVER_PREFERENCE;

// In place of OpenSSL's own check, which asks who has signed. Refused here, the peer is told by an
// alert, and the handshake doesn't go on.
int is_expected(X509_STORE_CTX* store, void* /*unused*/) {
  const auto* const ssl = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  const auto* const expected = static_cast<const peer_fingerprint*>(SSL_get_app_data(ssl));
  const bool is = expected->is_of(X509_STORE_CTX_get0_cert(store));
  X509_STORE_CTX_set_error(store, is ? X509_V_OK : X509_V_ERR_CERT_REJECTED);
  return is ? 1 : 0;
}

}  // namespace

owned<ssl_ctx_st> make_dtls_context(x509_st* self, evp_pkey_st* key) {
  owned<ssl_ctx_st> made(SSL_CTX_new(DTLS_server_method()));
  SSL_CTX* const context = made.get();
  if (context == nullptr) return nullptr;
  SSL_CTX_set_options(context, kOptions);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_max_cert_list(context, kMostCertificateBytes);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  SSL_CTX_set_cert_verify_callback(context, is_expected, nullptr);
  const bool done = SSL_CTX_set_min_proto_version(context, DTLS1_2_VERSION) == 1 &&
                    SSL_CTX_set_max_proto_version(context, DTLS1_2_VERSION) == 1 &&
                    SSL_CTX_set_cipher_list(context, kCiphers) == 1 &&
                    SSL_CTX_set1_groups_list(context, kGroups) == 1 &&
                    SSL_CTX_use_certificate(context, self) == 1 &&
                    SSL_CTX_use_PrivateKey(context, key) == 1 &&
                    SSL_CTX_set_tlsext_use_srtp(context, kSrtpProfiles) == 0;  // 0 is success
  if (!done) made.reset();
  return made;
}

}  // namespace zelta::core_service::webrtc
