// SPDX-License-Identifier: Apache-2.0
#include "digest.h"

#include <new>
#include <stdexcept>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace zelta::deliver {
namespace {

std::string hex_of(const unsigned char* bytes, size_t size) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (size_t at = 0; at < size; ++at) {
    text += kDigits[bytes[at] >> 4];
    text += kDigits[bytes[at] & 15];
  }
  return text;
}

}  // namespace

void sha256::release::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

sha256::sha256() : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
}

void sha256::add(const char* bytes, size_t size) {
  if (EVP_DigestUpdate(context_.get(), bytes, size) != 1) throw std::bad_alloc();
}

std::string sha256::hex() {
  unsigned char made[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context_.get(), made, &size) != 1) throw std::bad_alloc();
  return hex_of(made, size);
}

std::string sha256_of(const std::string& text) {
  sha256 of;
  of.add(text.data(), text.size());
  return of.hex();
}

std::string hmac_sha256(const std::string& key, const std::string& text) {
  unsigned char made[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), made,
           &size) == nullptr) {
    throw std::bad_alloc();
  }
  return hex_of(made, size);
}

std::string random_id() {
  unsigned char made[16];
  if (RAND_bytes(made, sizeof made) != 1) throw std::runtime_error("there is no randomness");
  return hex_of(made, sizeof made);
}

}  // namespace zelta::deliver
