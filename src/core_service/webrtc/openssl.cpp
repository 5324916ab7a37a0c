// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/openssl.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace zelta::core_service::webrtc {

void release_openssl::operator()(bio_method_st* one) const {
  BIO_meth_free(one);
}
void release_openssl::operator()(bio_st* one) const {
  BIO_free(one);
}
void release_openssl::operator()(evp_mac_ctx_st* one) const {
  EVP_MAC_CTX_free(one);
}
void release_openssl::operator()(evp_mac_st* one) const {
  EVP_MAC_free(one);
}
void release_openssl::operator()(evp_pkey_st* one) const {
  EVP_PKEY_free(one);
}
void release_openssl::operator()(ssl_ctx_st* one) const {
  SSL_CTX_free(one);
}
void release_openssl::operator()(ssl_st* one) const {
  SSL_free(one);
}
void release_openssl::operator()(x509_st* one) const {
  X509_free(one);
}

std::string take_openssl_error() {
  const char* const reason = ERR_reason_error_string(ERR_peek_error());
  ERR_clear_error();
  return reason != nullptr ? reason : "no reason given";
}

}  // namespace zelta::core_service::webrtc
