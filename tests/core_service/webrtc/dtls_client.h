// SPDX-License-Identifier: Apache-2.0
// The peer of a dtls_session: OpenSSL as a client, over memory, one record a datagram.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/srtp.h>
#include <openssl/ssl.h>

#include "core_service/rtp/network_order.h"
#include "core_service/webrtc/certificate.h"
#include "support/hex.h"

namespace zelta::test {

namespace webrtc = core_service::webrtc;

class dtls_client {
 public:
  // Shows the certificate of `self`; none when it is null. `profiles`: of use_srtp; null: without.
  dtls_client(const webrtc::certificate* self, const char* profiles) {
    context_.reset(SSL_CTX_new(DTLS_client_method()));
    if (self != nullptr) {
      SSL_CTX_use_certificate(context_.get(), SSL_CTX_get0_certificate(self->context()));
      SSL_CTX_use_PrivateKey(context_.get(), SSL_CTX_get0_privatekey(self->context()));
    }
    if (profiles != nullptr) {
      EXPECT_EQ(SSL_CTX_set_tlsext_use_srtp(context_.get(), profiles), 0) << profiles;
    }
    SSL_CTX_set_options(context_.get(), SSL_OP_NO_QUERY_MTU);
    ssl_.reset(SSL_new(context_.get()));
    in_ = BIO_new(BIO_s_mem());
    out_ = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl_.get(), in_, out_);
    SSL_set_connect_state(ssl_.get());
    SSL_set_mtu(ssl_.get(), 1200);
  }
  ~dtls_client() { ERR_clear_error(); }
  dtls_client(const dtls_client&) = delete;
  dtls_client& operator=(const dtls_client&) = delete;

  void begin() { proceed(); }

  void take(const byte_list& datagram) {
    BIO_write(in_, datagram.data(), static_cast<int>(datagram.size()));
    proceed();
  }

  void retransmit() { DTLSv1_handle_timeout(ssl_.get()); }

  // What it has written since.
  std::deque<byte_list> written() {
    char* begin = nullptr;
    auto left = static_cast<size_t>(BIO_get_mem_data(out_, &begin));
    const auto* at = reinterpret_cast<const uint8_t*>(begin);
    std::deque<byte_list> all;
    while (left > 0) {
      const size_t size = size_t{13} + core_service::rtp::read_16(at + 11);
      all.emplace_back(at, at + size);
      at += size;
      left -= size;
    }
    (void)BIO_reset(out_);
    return all;
  }

  bool is_connected() const { return SSL_is_init_finished(ssl_.get()) == 1 && !failed_; }
  bool has_failed() const { return failed_; }
  const std::string& heard() const { return heard_; }
  ssl_st* ssl() const { return ssl_.get(); }

  // What both ends have of RFC 5764, section 4.2, for this many bytes.
  byte_list exported(size_t bytes) const {
    byte_list material(bytes);
    const std::string label = "EXTRACTOR-dtls_srtp";
    EXPECT_EQ(SSL_export_keying_material(ssl_.get(), material.data(), bytes, label.data(),
                                         label.size(), nullptr, 0, 0),
              1);
    return material;
  }

 private:
  void proceed() {
    ERR_clear_error();
    char bytes[4096];
    const int size = SSL_read(ssl_.get(), bytes, sizeof bytes);
    if (size > 0) heard_.append(bytes, static_cast<size_t>(size));
    failed_ = failed_ || SSL_get_error(ssl_.get(), size) == SSL_ERROR_SSL;
    ERR_clear_error();
  }

  webrtc::owned<ssl_ctx_st> context_;
  webrtc::owned<ssl_st> ssl_;
  bio_st* in_ = nullptr;   // the SSL's
  bio_st* out_ = nullptr;  // the SSL's
  bool failed_ = false;
  std::string heard_;
};

}  // namespace zelta::test
