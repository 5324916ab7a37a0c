// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/peer_fingerprint.h"

#include <algorithm>
#include <array>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <strings.h>

namespace zelta::core_service::webrtc {
namespace {

struct hash_row {
  const char* name;
  const evp_md_st* (*algorithm)();
  size_t bytes;
};
constexpr hash_row kHashes[] = {
    {"sha-256", EVP_sha256, 32},
    {"sha-384", EVP_sha384, 48},
    {"sha-512", EVP_sha512, 64},
};

// As much of what a stranger wrote as belongs into a message.
std::string quoted(const std::string& text) {
  constexpr size_t kMost = 200;
  return "\"" + text.substr(0, kMost) + (text.size() > kMost ? "...\"" : "\"");
}

int digit(char one) {
  if (one >= '0' && one <= '9') return one - '0';
  if (one >= 'A' && one <= 'F') return one - 'A' + 10;
  if (one >= 'a' && one <= 'f') return one - 'a' + 10;
  return -1;
}

// Empty when `text` isn't pairs of digits with a colon between them.
std::vector<uint8_t> decode(const std::string& text) {
  if (text.size() % 3 != 2) return {};
  std::vector<uint8_t> bytes;
  for (size_t at = 0; at < text.size(); at += 3) {
    const int high = digit(text[at]);
    const int low = digit(text[at + 1]);
    if (high < 0 || low < 0 || (at + 2 < text.size() && text[at + 2] != ':')) return {};
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
  }
  return bytes;
}

}  // namespace

std::optional<peer_fingerprint> peer_fingerprint::parse(const std::string& hash,
                                                        const std::string& digest,
                                                        std::string& error) {
  for (const hash_row& row : kHashes) {
    if (strcasecmp(row.name, hash.c_str()) != 0) continue;
    std::vector<uint8_t> bytes = decode(digest);
    if (bytes.size() == row.bytes) return peer_fingerprint(row.algorithm(), std::move(bytes));
    error = std::string("the digest of a=fingerprint:") + row.name + " should be " +
            std::to_string(row.bytes) +
            " bytes of two hexadecimal digits, with a colon between them; it is " + quoted(digest);
    return std::nullopt;
  }
  error = "the hash of a=fingerprint should be sha-256, sha-384 or sha-512; it is " + quoted(hash);
  return std::nullopt;
}

bool peer_fingerprint::is_of(const x509_st* one) const {
  std::array<uint8_t, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  return X509_digest(one, hash_, digest.data(), &size) == 1 &&
         std::equal(digest_.begin(), digest_.end(), digest.begin(), digest.begin() + size);
}

}  // namespace zelta::core_service::webrtc
