// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/certificate.h"

#include <array>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include "core_service/webrtc/dtls_context.h"

namespace zelta::core_service::webrtc {
namespace {

// The peer's clock may be behind ours.
constexpr long kValidSinceSeconds = -24L * 3600;
constexpr long kValidForSeconds = 365L * 24 * 3600;
constexpr long kVersion3 = 2;

bool set_random_serial(x509_st* of) {
  uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<uint8_t*>(&serial), sizeof serial) != 1) return false;
  // Above 0 (RFC 5280, section 4.1.2.2).
  return ASN1_INTEGER_set_uint64(X509_get_serialNumber(of), serial | 1U) == 1;
}

// Names say nothing of the machine: every peer sees them.
bool set_names(x509_st* of) {
  X509_NAME* const name = X509_get_subject_name(of);
  const auto* const common = reinterpret_cast<const uint8_t*>("WebRTC");
  return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common, -1, -1, 0) == 1 &&
         X509_set_issuer_name(of, name) == 1;
}

owned<x509_st> sign(evp_pkey_st* key) {
  owned<x509_st> made(X509_new());
  const bool done =
      made && X509_set_version(made.get(), kVersion3) == 1 && set_random_serial(made.get()) &&
      set_names(made.get()) &&
      X509_gmtime_adj(X509_getm_notBefore(made.get()), kValidSinceSeconds) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(made.get()), kValidForSeconds) != nullptr &&
      X509_set_pubkey(made.get(), key) == 1 && X509_sign(made.get(), key, EVP_sha256()) > 0;
  if (!done) made.reset();
  return made;
}

std::string fingerprint_of(const x509_st* one) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::array<uint8_t, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (X509_digest(one, EVP_sha256(), digest.data(), &size) != 1) return {};
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    if (i > 0) text += ':';
    text += {kDigits[digest[i] >> 4U], kDigits[digest[i] & 15U]};
  }
  return text;
}

}  // namespace

std::shared_ptr<const certificate> certificate::make(std::string& error) {
  const owned<evp_pkey_st> key(EVP_EC_gen("P-256"));
  const owned<x509_st> self = key ? sign(key.get()) : nullptr;
  std::string fingerprint = self ? fingerprint_of(self.get()) : std::string();
  owned<ssl_ctx_st> context =
      fingerprint.empty() ? nullptr : make_dtls_context(self.get(), key.get());
  if (!context) {
    error = "OpenSSL can't make a certificate for DTLS: " + take_openssl_error();
    return nullptr;
  }
  return std::shared_ptr<const certificate>(
      new certificate(std::move(context), std::move(fingerprint)));
}

}  // namespace zelta::core_service::webrtc
