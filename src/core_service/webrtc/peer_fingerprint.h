// SPDX-License-Identifier: Apache-2.0
// What a session description says of the certificate that its writer will show (RFC 8122, section
// 5). Doesn't change once it is made; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct evp_md_st;
struct x509_st;

namespace zelta::core_service::webrtc {

class peer_fingerprint {
 public:
  // `hash`: "sha-256", "sha-384" or "sha-512" in any case, `digest`: "AB:CD:...". None with `error`
  // for others: a weaker hash would let another's certificate pass.
  static std::optional<peer_fingerprint> parse(const std::string& hash, const std::string& digest,
                                               std::string& error);

  // False when OpenSSL can't tell.
  bool is_of(const x509_st* one) const;

 private:
  peer_fingerprint(const evp_md_st* hash, std::vector<uint8_t> digest)
      : hash_(hash), digest_(std::move(digest)) {}

  const evp_md_st* hash_;
  std::vector<uint8_t> digest_;
};

}  // namespace zelta::core_service::webrtc
