// SPDX-License-Identifier: Apache-2.0
#include "support/webrtc/dtls.h"

#include <array>
#include <string_view>
#include <vector>

#include <openssl/err.h>
#include <openssl/srtp.h>
#include <openssl/ssl.h>

#include <sys/time.h>

namespace zelta::test {
namespace {

namespace rtp = core_service::rtp;
namespace webrtc = core_service::webrtc;

constexpr long kMostDatagramBytes = 1200;

struct profile_row {
  unsigned long id;
  rtp::cipher mode;
  size_t salt_bytes;
};
constexpr profile_row kProfiles[] = {
    {SRTP_AES128_CM_SHA1_80, rtp::cipher::kAes128CmSha1_80, 14},
    {SRTP_AEAD_AES_128_GCM, rtp::cipher::kAes128Gcm, 12},
};
constexpr size_t kKeyBytes = 16;

// Who has signed says nothing: the server is whom the answer says it is.
int is_expected(X509_STORE_CTX* store, void* /*unused*/) {
  const auto* const ssl = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  const auto* const expected = static_cast<const webrtc::peer_fingerprint*>(SSL_get_app_data(ssl));
  return expected->is_of(X509_STORE_CTX_get0_cert(store)) ? 1 : 0;
}

}  // namespace

std::unique_ptr<client_dtls> client_dtls::make(std::shared_ptr<const webrtc::certificate> as,
                                               const std::string& profiles,
                                               const std::string& expected,
                                               std::function<void(const uint8_t*, size_t)> send,
                                               std::string& error) {
  auto checked = webrtc::peer_fingerprint::parse("sha-256", expected, error);
  if (!checked) return nullptr;
  std::unique_ptr<client_dtls> made(new client_dtls(std::move(as), std::move(*checked)));
  made->port_.out = std::move(send);
  made->context_.reset(SSL_CTX_new(DTLS_client_method()));
  SSL_CTX* const context = made->context_.get();
  const bool has_context =
      context != nullptr && SSL_CTX_set_min_proto_version(context, DTLS1_2_VERSION) == 1 &&
      SSL_CTX_use_certificate(context, SSL_CTX_get0_certificate(made->as_->context())) == 1 &&
      SSL_CTX_use_PrivateKey(context, SSL_CTX_get0_privatekey(made->as_->context())) == 1 &&
      SSL_CTX_set_tlsext_use_srtp(context, profiles.c_str()) == 0;  // 0 is success
  webrtc::owned<bio_st> bio = webrtc::make_datagram_bio(made->port_);
  if (has_context && bio) {
    SSL_CTX_set_options(context, SSL_OP_NO_QUERY_MTU);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, is_expected, nullptr);
    made->ssl_.reset(SSL_new(context));
  }
  if (!made->ssl_) {
    error = "OpenSSL can't begin a session of DTLS: " + webrtc::take_openssl_error();
    return nullptr;
  }
  SSL* const ssl = made->ssl_.get();
  bio_st* const both = bio.release();
  SSL_set_bio(ssl, both, both);
  SSL_set_connect_state(ssl);
  SSL_set_mtu(ssl, kMostDatagramBytes);
  SSL_set_app_data(ssl, const_cast<webrtc::peer_fingerprint*>(&made->expected_));
  return made;
}

client_dtls::~client_dtls() = default;

void client_dtls::take(const uint8_t* bytes, size_t size) {
  port_.in = bytes;
  port_.in_bytes = size;
  proceed();
  port_.in = nullptr;
}

void client_dtls::advance() {
  ERR_clear_error();
  if (state_ == state::kHandshaking) DTLSv1_handle_timeout(ssl_.get());
  ERR_clear_error();
}

std::optional<core_service::media::media_time> client_dtls::timeout() const {
  timeval left{};
  if (state_ != state::kHandshaking || DTLSv1_get_timeout(ssl_.get(), &left) != 1) {
    return std::nullopt;
  }
  return std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
}

void client_dtls::close() {
  ERR_clear_error();
  if (state_ == state::kConnected) SSL_shutdown(ssl_.get());
  ERR_clear_error();
  state_ = state::kClosed;
}

void client_dtls::proceed() {
  ERR_clear_error();
  if (state_ == state::kHandshaking) {
    const int result = SSL_do_handshake(ssl_.get());
    result == 1 ? export_keys() : judge(result);
  }
  if (state_ == state::kConnected) {
    std::array<uint8_t, SSL3_RT_MAX_PLAIN_LENGTH> ignored{};
    const int size = SSL_read(ssl_.get(), ignored.data(), static_cast<int>(ignored.size()));
    if (size <= 0) judge(size);
  }
  ERR_clear_error();
}

void client_dtls::judge(int result) {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return;
    case SSL_ERROR_ZERO_RETURN:
      state_ = state::kClosed;
      why_ = "the server closed the session";
      return;
    default:
      state_ = state::kFailed;
      why_ = "DTLS failed: " + webrtc::take_openssl_error();
  }
}

// RFC 5764, section 4.2: the client's key, the server's, and their salts.
void client_dtls::export_keys() {
  const SRTP_PROTECTION_PROFILE* const chosen = SSL_get_selected_srtp_profile(ssl_.get());
  for (const profile_row& row : kProfiles) {
    if (chosen == nullptr || chosen->id != row.id) continue;
    constexpr std::string_view kLabel = "EXTRACTOR-dtls_srtp";
    std::vector<uint8_t> all(2 * (kKeyBytes + row.salt_bytes));
    if (SSL_export_keying_material(ssl_.get(), all.data(), all.size(), kLabel.data(), kLabel.size(),
                                   nullptr, 0, 0) != 1) {
      break;
    }
    const auto half = [&](size_t which) {
      const uint8_t* const key = &all[which * kKeyBytes];
      const uint8_t* const salt = &all[2 * kKeyBytes + which * row.salt_bytes];
      rtp::srtp_key one{row.mode, {key, key + kKeyBytes}};
      one.key_and_salt.insert(one.key_and_salt.end(), salt, salt + row.salt_bytes);
      return one;
    };
    keys_ = srtp_keys{half(1), half(0)};
    state_ = state::kConnected;
    return;
  }
  state_ = state::kFailed;
  why_ = "there are no keys";
}

}  // namespace zelta::test
