// SPDX-License-Identifier: Apache-2.0
// The rules by which all peers of a certificate are spoken to.
#pragma once

#include "core_service/webrtc/openssl.h"

namespace zelta::core_service::webrtc {

// DTLS 1.2 as a server (RFC 8827, section 6.5): ephemeral keys only, no renegotiation, nothing is
// resumed. The peer has to show a certificate, by whomever signed: it is taken when it is the one
// of the peer_fingerprint that is the SSL's app data. Null, with errors in OpenSSL's queue, when it
// is refused.
owned<ssl_ctx_st> make_dtls_context(x509_st* self, evp_pkey_st* key);

}  // namespace zelta::core_service::webrtc
