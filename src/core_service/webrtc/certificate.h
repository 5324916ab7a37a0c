// SPDX-License-Identifier: Apache-2.0
// Who this process is to its peers: a key and a certificate that it has signed itself, which peers
// know by the fingerprint in the session description (RFC 8827, section 6.5).
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "core_service/webrtc/openssl.h"

namespace zelta::core_service::webrtc {

// Doesn't change once it is made; any thread.
class certificate {
 public:
  // A new key of ECDSA on P-256, for a year. To be made once a process, since what it costs is the
  // key. Null with `error` when OpenSSL refuses.
  static std::shared_ptr<const certificate> make(std::string& error);

  // Of SHA-256, "AB:CD:..." as behind "a=fingerprint:sha-256 ".
  const std::string& fingerprint() const { return fingerprint_; }
  // What all sessions with it have in common; lives as long as this or one of them.
  ssl_ctx_st* context() const { return context_.get(); }

 private:
  certificate(owned<ssl_ctx_st> context, std::string fingerprint)
      : context_(std::move(context)), fingerprint_(std::move(fingerprint)) {}

  const owned<ssl_ctx_st> context_;
  const std::string fingerprint_;
};

}  // namespace zelta::core_service::webrtc
