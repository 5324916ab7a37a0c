// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/dtls_session.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/srtp.h>
#include <openssl/ssl.h>

#include <sys/time.h>

#include "core_service/rtp/network_order.h"
#include "core_service/webrtc/certificate.h"

namespace zelta::core_service::webrtc {
namespace {

// RFC 6347, section 4.1: type, version, epoch, number, length.
constexpr size_t kRecordHeaderBytes = 13;
constexpr size_t kGcmBytes = 8 + 16;  // nonce and tag (RFC 5288, section 3)
constexpr uint8_t kFirstType = 20;
constexpr uint8_t kApplicationData = 23;
constexpr uint8_t kLastByte = 63;

// A second, as RFC 6347, section 4.2.4.1, has it, would be a pause at every join with a loss. The
// peer answers at once or not at all, so that a long wait gains nothing either.
constexpr unsigned kFirstWaitUs = 200'000;
constexpr unsigned kLongestWaitUs = 3'000'000;

unsigned next_wait(SSL* /*ssl*/, unsigned last_us) {
  return last_us == 0 ? kFirstWaitUs : std::min(2 * last_us, kLongestWaitUs);
}

// Whole records of types that there are. OpenSSL passes over most of what isn't, but takes data
// that isn't encrypted, and an encrypted record that is too short to be one, for the peer's error,
// and anybody can send them.
bool is_row_of_records(const uint8_t* bytes, size_t size) {
  for (size_t at = 0; at < size;) {
    if (size - at < kRecordHeaderBytes) return false;
    const uint8_t* const header = bytes + at;
    const bool is_encrypted = rtp::read_16(header + 3) != 0;
    const size_t length = rtp::read_16(header + 11);
    if (header[0] < kFirstType || header[0] > kApplicationData || header[1] != 0xfe ||
        length > size - at - kRecordHeaderBytes)
      return false;
    if (is_encrypted ? length < kGcmBytes : header[0] == kApplicationData) return false;
    at += kRecordHeaderBytes + length;
  }
  return true;
}

struct profile_row {
  unsigned long id;
  rtp::cipher mode;
  size_t key_bytes;
  size_t salt_bytes;
};
// RFC 7714, section 14.2; RFC 5764, section 4.1.2.
constexpr profile_row kProfiles[] = {
    {SRTP_AEAD_AES_128_GCM, rtp::cipher::kAes128Gcm, 16, 12},
    {SRTP_AES128_CM_SHA1_80, rtp::cipher::kAes128CmSha1_80, 16, 14},
};

const profile_row* chosen_profile(SSL* ssl) {
  const SRTP_PROTECTION_PROFILE* const chosen = SSL_get_selected_srtp_profile(ssl);
  if (chosen == nullptr) return nullptr;
  const auto* const row =
      std::find_if(std::begin(kProfiles), std::end(kProfiles),
                   [&](const profile_row& one) { return one.id == chosen->id; });
  return row != std::end(kProfiles) ? row : nullptr;
}

// The client's key, the server's, the client's salt, the server's (RFC 5764, section 4.2).
std::optional<dtls_session::srtp_keys> export_keys(SSL* ssl, const profile_row& of) {
  constexpr std::string_view kLabel = "EXTRACTOR-dtls_srtp";
  constexpr size_t kMostBytes = size_t{2} * (16 + 14);
  std::array<uint8_t, kMostBytes> bytes{};
  if (SSL_export_keying_material(ssl, bytes.data(), 2 * (of.key_bytes + of.salt_bytes),
                                 kLabel.data(), kLabel.size(), nullptr, 0, 0) != 1)
    return std::nullopt;
  const auto half = [&](size_t which) {
    const uint8_t* const key = bytes.data() + which * of.key_bytes;
    const uint8_t* const salt = bytes.data() + 2 * of.key_bytes + which * of.salt_bytes;
    rtp::srtp_key one{of.mode, {key, key + of.key_bytes}};
    one.key_and_salt.insert(one.key_and_salt.end(), salt, salt + of.salt_bytes);
    return one;
  };
  dtls_session::srtp_keys keys{of.mode, half(0), half(1)};
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return keys;
}

}  // namespace

bool looks_like_dtls(const uint8_t* bytes, size_t size) {
  return size >= kRecordHeaderBytes && bytes[0] >= kFirstType && bytes[0] <= kLastByte;
}

std::unique_ptr<dtls_session> dtls_session::make(const std::shared_ptr<const certificate>& self,
                                                 const fingerprint& expected, events to,
                                                 std::string& error) {
  auto checked = peer_fingerprint::parse(expected.hash, expected.digest, error);
  if (!checked) return nullptr;
  std::unique_ptr<dtls_session> made(new dtls_session(std::move(*checked), std::move(to)));
  if (made->begin(self->context())) return made;
  error = "OpenSSL can't begin a session of DTLS: " + take_openssl_error();
  return nullptr;
}

dtls_session::dtls_session(peer_fingerprint expected, events to)
    : expected_(std::move(expected)), data_(std::move(to.data)) {
  port_.out = std::move(to.send);
}

dtls_session::~dtls_session() {
  forget_keys();
}

void dtls_session::forget_keys() {
  if (!keys_) return;
  for (rtp::srtp_key* const key : {&keys_->in, &keys_->out}) {
    OPENSSL_cleanse(key->key_and_salt.data(), key->key_and_salt.size());
  }
  keys_.reset();
}

bool dtls_session::begin(ssl_ctx_st* context) {
  ssl_.reset(SSL_new(context));
  owned<bio_st> bio = make_datagram_bio(port_);
  if (!ssl_ || !bio) return false;
  // For both directions, one reference is taken.
  bio_st* const both = bio.release();
  SSL_set_bio(ssl_.get(), both, both);
  SSL_set_accept_state(ssl_.get());
  DTLS_set_timer_cb(ssl_.get(), next_wait);
  return SSL_set_app_data(ssl_.get(), const_cast<peer_fingerprint*>(&expected_)) == 1 &&
         SSL_set_mtu(ssl_.get(), static_cast<long>(kMostDatagramBytes)) > 0;
}

void dtls_session::take(const uint8_t* bytes, size_t size, media::media_time now) {
  if (state_ == state::kFailed || state_ == state::kClosed) return;
  if (!looks_like_dtls(bytes, size) || !is_row_of_records(bytes, size)) return;
  if (state_ == state::kHandshaking) {
    handshake_bytes_ += size;
    if (handshake_bytes_ > kMostHandshakeBytes) {
      fail("the peer has sent more than " + std::to_string(kMostHandshakeBytes) +
           " bytes, and the handshake isn't done");
      return;
    }
  }
  port_.in = bytes;
  port_.in_bytes = size;
  proceed();
  port_.in = nullptr;
  note_deadline(now);
}

void dtls_session::advance(media::media_time now) {
  if (state_ == state::kFailed || state_ == state::kClosed) return;
  ERR_clear_error();
  if (DTLSv1_handle_timeout(ssl_.get()) < 0) fail(failure());
  ERR_clear_error();
  note_deadline(now);
}

bool dtls_session::send(const uint8_t* bytes, size_t size) {
  if (state_ != state::kConnected) return false;
  ERR_clear_error();
  const bool sent = SSL_write(ssl_.get(), bytes, static_cast<int>(size)) > 0;
  ERR_clear_error();
  return sent;
}

void dtls_session::close() {
  if (state_ == state::kConnected) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());  // sent or lost: nobody waits for the answer
    ERR_clear_error();
  }
  if (state_ != state::kFailed) state_ = state::kClosed;
  deadline_.reset();
}

void dtls_session::proceed() {
  ERR_clear_error();
  if (state_ == state::kHandshaking) {
    const int result = SSL_do_handshake(ssl_.get());
    if (result == 1) {
      connected();
    } else {
      judge(result);
    }
  }
  if (state_ == state::kConnected) read();
  ERR_clear_error();
}

void dtls_session::connected() {
  const profile_row* const profile = chosen_profile(ssl_.get());
  if (profile == nullptr) {
    SSL_shutdown(ssl_.get());
    fail(
        "the peer has no way to encrypt media in common with us: use_srtp should offer "
        "SRTP_AEAD_AES_128_GCM or SRTP_AES128_CM_HMAC_SHA1_80");
    return;
  }
  keys_ = export_keys(ssl_.get(), *profile);
  if (!keys_) {
    fail("OpenSSL can't export the keys: " + take_openssl_error());
    return;
  }
  state_ = state::kConnected;
}

void dtls_session::read() {
  std::array<uint8_t, SSL3_RT_MAX_PLAIN_LENGTH> record;
  int size = 0;
  do {
    size = SSL_read(ssl_.get(), record.data(), static_cast<int>(record.size()));
    if (size > 0 && data_) data_(record.data(), static_cast<size_t>(size));
  } while (size > 0 && state_ == state::kConnected);
  if (size <= 0) judge(size);
}

// What a call of OpenSSL's that hasn't succeeded means for the session.
void dtls_session::judge(int result) {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return;
    case SSL_ERROR_ZERO_RETURN:
      SSL_shutdown(ssl_.get());  // the answer that it waits for
      state_ = state::kClosed;
      why_ = "the peer closed the session";
      return;
    default:
      fail(failure());
  }
}

std::string dtls_session::failure() {
  if (SSL_get_verify_result(ssl_.get()) == X509_V_ERR_CERT_REJECTED) {
    return "the peer's certificate isn't the one that a=fingerprint of its offer names";
  }
  return "DTLS failed: " + take_openssl_error();
}

void dtls_session::fail(std::string why) {
  state_ = state::kFailed;
  why_ = std::move(why);
  forget_keys();
  deadline_.reset();
}

void dtls_session::note_deadline(media::media_time now) {
  deadline_.reset();
  timeval left{};
  const bool waits = state_ == state::kHandshaking || state_ == state::kConnected;
  if (waits && DTLSv1_get_timeout(ssl_.get(), &left) == 1) {
    deadline_ = now + std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
  }
}

}  // namespace zelta::core_service::webrtc
