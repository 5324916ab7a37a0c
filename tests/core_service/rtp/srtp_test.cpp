// SPDX-License-Identifier: Apache-2.0
// Ciphers and keys of encrypted RTP.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/rtp/settings.h"
#include "core_service/rtp/srtp/openssl_ciphers.h"
#include "core_service/rtp/srtp/srtp_session.h"

namespace zelta::test {
namespace {

using namespace core_service;

// libsrtp takes none that doesn't give its known answers.
TEST(SrtpCiphers, AreOpenSsls) {
  const rtp::srtp_key key{rtp::cipher::kAes128Gcm, std::vector<uint8_t>(28, 7)};
  ASSERT_TRUE(rtp::srtp_session::make(key, key)) << "with it libsrtp begins";
  EXPECT_TRUE(rtp::use_openssl_counter_mode());
  EXPECT_TRUE(rtp::use_openssl_gcm());
  EXPECT_TRUE(rtp::use_openssl_hmac());
}

TEST(SrtpSession, TakesNothingThatWasChangedOnItsWayOrCameBefore) {
  for (const auto& [mode, key_bytes] :
       {std::pair{rtp::cipher::kAes128CmSha1_80, 30}, std::pair{rtp::cipher::kAes128Gcm, 28},
        std::pair{rtp::cipher::kAes256Gcm, 44}}) {
    SCOPED_TRACE(key_bytes);
    const rtp::srtp_key key{mode, std::vector<uint8_t>(static_cast<size_t>(key_bytes), 7)};
    // The way back has a key of its own.
    const rtp::srtp_key other{mode, std::vector<uint8_t>(static_cast<size_t>(key_bytes), 9)};
    const auto sends = rtp::srtp_session::make(other, key);
    const auto receives = rtp::srtp_session::make(key, other);
    ASSERT_TRUE(sends && receives);
    // A receiver report without blocks (RFC 3550, section 6.4.2).
    const std::vector<uint8_t> report{0x80, 201, 0, 1, 1, 2, 3, 4};
    std::vector<uint8_t> sent = report;
    sent.resize(report.size() + rtp::srtp_session::kMostAdded);
    const auto size = sends->encrypt_rtcp(sent.data(), report.size());
    ASSERT_TRUE(size.has_value());
    sent.resize(*size);
    for (size_t at = 0; at < sent.size(); ++at) {
      std::vector<uint8_t> changed = sent;
      changed[at] ^= 1;
      EXPECT_FALSE(receives->decrypt_rtcp(changed.data(), changed.size())) << at;
      changed = sent;
      EXPECT_FALSE(receives->decrypt_rtcp(changed.data(), at)) << "cut off at " << at;
    }
    std::vector<uint8_t> received = sent;
    EXPECT_EQ(receives->decrypt_rtcp(received.data(), received.size()), report.size());
    received.resize(report.size());
    EXPECT_EQ(received, report);
    EXPECT_FALSE(receives->decrypt_rtcp(sent.data(), sent.size())) << "the second time";
  }
}

TEST(SrtpKey, HasTheLengthThatItsModeWants) {
  const std::string bytes28 = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGw==";
  const std::string bytes30 = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwd";
  const std::string bytes44 = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKis=";
  // Where there is no error, the secret is taken.
  const std::tuple<const char*, std::string, const char*> rows[] = {
      {"aes-128-cm-sha1-80", bytes30, ""},
      {"aes-128-gcm", bytes28, ""},
      {"aes-256-gcm", bytes44, ""},
      {"aes-256-gcm", bytes28, "32 bytes of key and 12 of salt for aes-256-gcm; it has 28"},
      {"aes-128-gcm", "not base64!", "it is no base64"},
      {"aes-128-gcm", "", "it is no base64"},
      {"xor", bytes28, "--encrypt_mode \"xor\" should be aes-128-cm-sha1-80, aes-128-gcm"},
  };
  std::vector<rtp::cipher> modes;
  for (const auto& [mode, secret, says] : rows) {
    std::string error;
    const auto key = rtp::parse_key(mode, secret, error);
    EXPECT_EQ(key.has_value(), says[0] == '\0') << mode << " " << secret;
    EXPECT_NE(error.find(says), std::string::npos) << error;
    EXPECT_EQ(error.find(bytes28), std::string::npos) << "a secret stands in no message";
    if (key) modes.push_back(key->mode);
  }
  EXPECT_EQ(modes, (std::vector<rtp::cipher>{rtp::cipher::kAes128CmSha1_80, rtp::cipher::kAes128Gcm,
                                             rtp::cipher::kAes256Gcm}));
}

}  // namespace
}  // namespace zelta::test
