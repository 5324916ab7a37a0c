// SPDX-License-Identifier: Apache-2.0
// OpenSSL's ciphers under libsrtp. Debian builds libsrtp upon NSS, which makes a cipher anew for
// every packet, and with a SHA-1 that knows nothing of the processor.
#pragma once

namespace zelta::core_service::rtp {

// Gives libsrtp OpenSSL's AES and SHA-1 for all that it makes from now on. To be called once, after
// srtp_init() and before any session. False when one was refused, by libsrtp's own known answers or
// because OpenSSL is set up without it: libsrtp's stays in its place then.
bool use_openssl_ciphers();

// The parts of it.
bool use_openssl_counter_mode();
bool use_openssl_gcm();
bool use_openssl_hmac();

}  // namespace zelta::core_service::rtp
