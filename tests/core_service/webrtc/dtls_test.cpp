// SPDX-License-Identifier: Apache-2.0
// DTLS with a peer over memory, by a clock of the test's.
#include <algorithm>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <srtp2/srtp.h>

#include "core_service/rtp/srtp/srtp_session.h"
#include "core_service/webrtc/dtls_client.h"
#include "core_service/webrtc/dtls_session.h"
#include "support/wall_clock.h"

namespace zelta::test {
namespace {

using namespace core_service;
using namespace std::chrono_literals;
using webrtc::certificate;
using webrtc::dtls_session;
using state = dtls_session::state;

constexpr const char* kGcm = "SRTP_AEAD_AES_128_GCM";
constexpr const char* kCounterMode = "SRTP_AES128_CM_SHA1_80";
constexpr const char* kBoth = "SRTP_AES128_CM_SHA1_80:SRTP_AEAD_AES_128_GCM";

std::shared_ptr<const certificate> made_certificate() {
  std::string error;
  auto made = certificate::make(error);
  EXPECT_TRUE(made) << error;
  return made;
}
const certificate& clients() {
  static const std::shared_ptr<const certificate> made = made_certificate();
  return *made;
}
const std::shared_ptr<const certificate>& servers() {
  static const std::shared_ptr<const certificate> made = made_certificate();
  return made;
}

// Both ends, and what is on its way between them.
struct call {
  explicit call(const char* profiles = kBoth, const certificate* shown = &clients(),
                const dtls_session::fingerprint& expected = {"sha-256", clients().fingerprint()})
      : client(shown, profiles) {
    std::string error;
    server = dtls_session::make(servers(), expected,
                                {[this](const uint8_t* bytes, size_t size) {
                                   EXPECT_LE(size, dtls_session::kMostDatagramBytes);
                                   to_client.emplace_back(bytes, bytes + size);
                                 },
                                 [this](const uint8_t* bytes, size_t size) {
                                   heard.append(reinterpret_cast<const char*>(bytes), size);
                                 }},
                                error);
    EXPECT_TRUE(server) << error;
  }

  void give_server(const byte_list& datagram) {
    server->take(datagram.data(), datagram.size(), wall_time);
  }

  // Carries all that is on its way, and what comes of it.
  void carry() {
    for (bool any = true; any;) {
      any = false;
      for (const byte_list& one : client.written()) {
        any = true;
        if (!is_lost(carried++)) deliver(one);
      }
      for (std::deque<byte_list> all = std::exchange(to_client, {}); !all.empty();
           all.pop_front()) {
        any = true;
        if (!is_lost(carried++)) client.take(all.front());
      }
    }
  }

  // Until both are connected or nobody waits for anything.
  void connect() {
    client.begin();
    carry();
    for (int i = 0; i < 60 && !is_connected() && wait(); ++i) carry();
  }

  bool is_connected() const { return server->is() == state::kConnected && client.is_connected(); }

  // Lets the time until the next retransmission pass.
  bool wait() {
    timeval left{};
    std::optional<media::media_time> next = server->next_deadline();
    if (DTLSv1_get_timeout(client.ssl(), &left) == 1) {
      const media::media_time of_client =
          wall_time + std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
      next = next ? std::min(*next, of_client) : of_client;
    }
    if (!next) return false;
    wall_time = std::chrono::duration_cast<std::chrono::microseconds>(*next);
    server->advance(wall_time);
    client.retransmit();
    return true;
  }

  dtls_client client;
  std::unique_ptr<dtls_session> server;
  std::deque<byte_list> to_client;
  std::string heard;
  size_t carried = 0;
  std::function<bool(size_t)> is_lost = [](size_t) { return false; };
  std::function<void(const byte_list&)> deliver = [this](const byte_list& one) {
    give_server(one);
  };
};

struct profile {
  const char* offered;
  rtp::cipher chosen;
  size_t key_bytes;
  size_t salt_bytes;
};
constexpr profile kProfiles[] = {
    {kGcm, rtp::cipher::kAes128Gcm, 16, 12},
    {kBoth, rtp::cipher::kAes128Gcm, 16, 12},
    {kCounterMode, rtp::cipher::kAes128CmSha1_80, 16, 14},
    {"SRTP_AES128_CM_SHA1_32:SRTP_AES128_CM_SHA1_80", rtp::cipher::kAes128CmSha1_80, 16, 14},
};

// The client's own ends of SRTP, made of what its OpenSSL exports.
struct client_srtp {
  client_srtp(const dtls_client& of, const profile& how) {
    const byte_list all = of.exported(2 * (how.key_bytes + how.salt_bytes));
    out = make(all, how, 0, ssrc_any_outbound);
    in = make(all, how, 1, ssrc_any_inbound);
  }
  ~client_srtp() {
    srtp_dealloc(out);
    srtp_dealloc(in);
  }
  client_srtp(const client_srtp&) = delete;
  client_srtp& operator=(const client_srtp&) = delete;

  static srtp_t make(const byte_list& all, const profile& how, size_t which,
                     srtp_ssrc_type_t direction) {
    const auto at = [&](size_t offset) { return all.begin() + static_cast<long>(offset); };
    const size_t key = which * how.key_bytes;
    const size_t salt = 2 * how.key_bytes + which * how.salt_bytes;
    byte_list secret(at(key), at(key + how.key_bytes));
    secret.insert(secret.end(), at(salt), at(salt + how.salt_bytes));
    srtp_policy_t policy{};
    for (srtp_crypto_policy_t* const one : {&policy.rtp, &policy.rtcp}) {
      if (how.chosen == rtp::cipher::kAes128Gcm) {
        srtp_crypto_policy_set_aes_gcm_128_16_auth(one);
      } else {
        srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(one);
      }
    }
    policy.ssrc.type = direction;
    policy.key = secret.data();
    srtp_t made = nullptr;
    EXPECT_EQ(srtp_create(&made, &policy), srtp_err_status_ok);
    return made;
  }

  srtp_t out = nullptr;
  srtp_t in = nullptr;
};

TEST(DtlsTest, BothEndsHaveTheSameKeysOfTheBestProfile) {
  for (const profile& one : kProfiles) {
    SCOPED_TRACE(one.offered);
    call both(one.offered);
    both.connect();
    ASSERT_TRUE(both.is_connected()) << both.server->why();
    ASSERT_TRUE(both.server->keys().has_value());
    const dtls_session::srtp_keys keys = *both.server->keys();
    EXPECT_EQ(keys.mode, one.chosen);
    const auto session = rtp::srtp_session::make(keys.in, keys.out);
    ASSERT_TRUE(session);
    const client_srtp client(both.client, one);

    const byte_list packet = from_hex("80600001 00000bb8 01020304 6d65646961");
    byte_list bytes = packet;
    bytes.resize(packet.size() + rtp::srtp_session::kMostAdded);
    int size = static_cast<int>(packet.size());
    ASSERT_EQ(srtp_protect(client.out, bytes.data(), &size), srtp_err_status_ok);
    ASSERT_EQ(session->decrypt_rtp(bytes.data(), static_cast<size_t>(size)), packet.size());
    bytes.resize(packet.size());
    EXPECT_EQ(bytes, packet);

    const byte_list report = from_hex("80c90001 01020304");
    bytes = report;
    bytes.resize(report.size() + rtp::srtp_session::kMostAdded);
    size = static_cast<int>(session->encrypt_rtcp(bytes.data(), report.size()).value_or(0));
    ASSERT_EQ(srtp_unprotect_rtcp(client.in, bytes.data(), &size), srtp_err_status_ok);
    bytes.resize(static_cast<size_t>(size));
    EXPECT_EQ(bytes, report);
  }
}

TEST(DtlsTest, KeysAreEphemeralAndNothingIsResumed) {
  call both;
  both.connect();
  ASSERT_TRUE(both.is_connected());
  EXPECT_EQ(std::string(SSL_get_version(both.client.ssl())), "DTLSv1.2");
  EXPECT_EQ(SSL_CIPHER_get_kx_nid(SSL_get_current_cipher(both.client.ssl())), NID_kx_ecdhe);
  const SSL_SESSION* const session = SSL_get0_session(both.client.ssl());
  EXPECT_EQ(SSL_SESSION_has_ticket(session), 0);
  unsigned id_bytes = 0;
  SSL_SESSION_get_id(session, &id_bytes);
  EXPECT_EQ(id_bytes, 0U);
}

std::string digest_of(const EVP_MD* hash, bool small) {
  byte_list bytes(EVP_MAX_MD_SIZE);
  unsigned size = 0;
  X509_digest(SSL_CTX_get0_certificate(clients().context()), hash, bytes.data(), &size);
  std::string text;
  for (unsigned i = 0; i < size; ++i) text += (i > 0 ? ":" : "") + to_hex(&bytes[i], 1);
  if (!small) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char one) { return one >= 'a' ? static_cast<char>(one - 32) : one; });
  }
  return text;
}

TEST(DtlsTest, OnlyThePeerWhoseFingerprintWasOfferedIsConnected) {
  const dtls_session::fingerprint right[] = {
      {"sha-256", clients().fingerprint()},       {"sha-256", digest_of(EVP_sha256(), false)},
      {"SHA-256", digest_of(EVP_sha256(), true)}, {"sha-384", digest_of(EVP_sha384(), false)},
      {"sha-512", digest_of(EVP_sha512(), true)},
  };
  for (const auto& one : right) {
    call both(kBoth, &clients(), one);
    both.connect();
    EXPECT_TRUE(both.is_connected()) << one.hash << " " << both.server->why();
    call with_another(kBoth, servers().get(), one);
    with_another.connect();
    EXPECT_EQ(with_another.server->is(), state::kFailed) << one.hash;
    EXPECT_FALSE(with_another.server->keys().has_value());
    EXPECT_FALSE(with_another.server->next_deadline().has_value());
    EXPECT_NE(with_another.server->why().find("a=fingerprint"), std::string::npos);
    EXPECT_TRUE(with_another.client.has_failed()) << "it is told";
  }
}

TEST(DtlsTest, APeerThatCantBeTrustedOrHeardFails) {
  const struct {
    const char* profiles;
    const certificate* shown;
    const char* says;
  } rows[] = {
      {kBoth, nullptr, "peer did not return a certificate"},
      {nullptr, &clients(), "SRTP_AEAD_AES_128_GCM or SRTP_AES128_CM_HMAC_SHA1_80"},
      {"SRTP_AES128_CM_SHA1_32", &clients(),
       "SRTP_AEAD_AES_128_GCM or SRTP_AES128_CM_HMAC_SHA1_80"},
      {"SRTP_AEAD_AES_256_GCM", &clients(), "SRTP_AEAD_AES_128_GCM or SRTP_AES128_CM_HMAC_SHA1_80"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    call both(row.profiles, row.shown);
    both.connect();
    EXPECT_EQ(both.server->is(), state::kFailed);
    EXPECT_NE(both.server->why().find(row.says), std::string::npos) << both.server->why();
    EXPECT_FALSE(both.server->keys().has_value());
    both.server->advance(wall_time + 1h);
    EXPECT_TRUE(both.to_client.empty()) << "nothing is sent afterwards";
  }
}

TEST(DtlsTest, AFingerprintThatCantBeReadIsAnError) {
  const std::string digest = clients().fingerprint();
  const std::tuple<std::string, std::string, const char*> rows[] = {
      {"sha-1", "AB:CD", "should be sha-256, sha-384 or sha-512; it is \"sha-1\""},
      {"", digest, "it is \"\""},
      {"sha-256", "", "32 bytes of two hexadecimal digits"},
      {"sha-256", digest.substr(3), "32 bytes"},
      {"sha-256", digest + ":00", "32 bytes"},
      {"sha-256", digest + ":", "32 bytes"},
      {"sha-512", digest, "64 bytes"},
      {"sha-256", "G" + digest.substr(1), "it is \"G"},
      {"sha-256", digest.substr(0, 2) + "-" + digest.substr(3), "32 bytes"},
      {"sha-256", std::string(5000, 'A'), "AAA...\""},
  };
  for (const auto& [hash, text, says] : rows) {
    std::string error;
    EXPECT_FALSE(dtls_session::make(servers(), {hash, text}, {}, error));
    EXPECT_NE(error.find(says), std::string::npos) << error;
    EXPECT_LT(error.size(), 400U);
  }
}

TEST(DtlsTest, LostFlightsAreSentAgainAtTheirDeadlines) {
  call whole;
  whole.connect();
  ASSERT_TRUE(whole.is_connected());
  const size_t datagrams = whole.carried;
  EXPECT_GE(datagrams, 6U);
  for (size_t lost = 0; lost < datagrams; ++lost) {
    SCOPED_TRACE(lost);
    call both;
    both.is_lost = [&](size_t number) { return number == lost; };
    const auto begun = wall_time;
    both.connect();
    EXPECT_TRUE(both.is_connected()) << both.server->why();
    EXPECT_LE(wall_time - begun, 3s);
    EXPECT_EQ(both.server->keys()->in.key_and_salt.size(), 28U);
  }
  call every_other;
  every_other.is_lost = [](size_t number) { return number < 40 && number % 2 == 0; };
  every_other.connect();
  EXPECT_TRUE(every_other.is_connected()) << every_other.server->why();
}

// The server's own: the client's comes a second after it began.
TEST(DtlsTest, TheServerAsksAgainSoonAndFailsAfterHalfAMinuteOfSilence) {
  call both;
  EXPECT_FALSE(both.server->next_deadline().has_value()) << "nobody has come";
  both.client.begin();
  for (const byte_list& one : both.client.written()) both.give_server(one);
  const size_t flight = both.to_client.size();
  ASSERT_GT(flight, 0U);
  const auto begun = wall_time;
  both.server->advance(wall_time);
  EXPECT_EQ(both.to_client.size(), flight) << "too early";
  int waits = 0;
  for (; both.server->is() == state::kHandshaking && waits < 100; ++waits) {
    ASSERT_TRUE(both.server->next_deadline().has_value());
    ASSERT_GT(*both.server->next_deadline(), media::media_time(wall_time));
    wall_time =
        std::chrono::duration_cast<std::chrono::microseconds>(*both.server->next_deadline());
    if (waits == 0) {
      EXPECT_EQ(wall_time - begun, 200ms);
    }
    both.server->advance(wall_time);
  }
  EXPECT_EQ(both.server->is(), state::kFailed);
  EXPECT_GT(both.to_client.size(), flight * 10);
  EXPECT_GT(wall_time - begun, 20s);
  EXPECT_LT(wall_time - begun, 40s);
  EXPECT_FALSE(both.server->next_deadline().has_value());
}

TEST(DtlsTest, EitherEndMayCloseAndTheOtherIsTold) {
  call of_client;
  of_client.connect();
  ASSERT_TRUE(of_client.is_connected());
  SSL_shutdown(of_client.client.ssl());
  of_client.carry();
  EXPECT_EQ(of_client.server->is(), state::kClosed);
  EXPECT_EQ(of_client.server->why(), "the peer closed the session");
  EXPECT_EQ(SSL_get_shutdown(of_client.client.ssl()) & SSL_RECEIVED_SHUTDOWN,
            SSL_RECEIVED_SHUTDOWN);

  call of_server;
  of_server.connect();
  ASSERT_TRUE(of_server.is_connected());
  of_server.server->close();
  of_server.server->close();
  EXPECT_EQ(of_server.to_client.size(), 1U);
  of_server.carry();
  EXPECT_EQ(of_server.server->is(), state::kClosed);
  EXPECT_EQ(SSL_get_shutdown(of_server.client.ssl()) & SSL_RECEIVED_SHUTDOWN,
            SSL_RECEIVED_SHUTDOWN);

  call before;
  before.server->close();
  before.connect();
  EXPECT_EQ(before.server->is(), state::kClosed);
  EXPECT_TRUE(before.to_client.empty());
}

// What a stranger can send without knowing anything, and what the way may do to a datagram.
TEST(DtlsTest, GarbageAndReplaysDontHurt) {
  call both;
  const auto give_garbage = [&both] {
    for (const char* const hex :
         {"", "16", "16fefd", "16fefd0000000000000000ffff", "16fefd000000000000000900050102",
          "16feff0000000000000000", "16030300000000000000000000", "3ffefd00000000000000090000",
          "80600001000000000000000000", "19fefd000000000000000900020102",
          // Data that isn't encrypted, and nothing at all.
          "17fefd0000000000000009000401020304", "16fefd00000000000000090000"}) {
      both.give_server(from_hex(hex));
    }
    // What seems to be encrypted, of every length.
    for (uint8_t type = 20; type < 24; ++type) {
      for (uint8_t length = 0; length < 60; ++length) {
        byte_list record = from_hex("00fefd 0001 000000000fff 0000");
        record[0] = type;
        record[12] = length;
        record.resize(record.size() + length, 0x55);
        both.give_server(record);
      }
    }
  };
  both.deliver = [&](const byte_list& one) {
    give_garbage();
    for (size_t size = 0; size < one.size(); ++size) {
      both.give_server({one.begin(), one.begin() + static_cast<long>(size)});
    }
    both.give_server(one);
    both.give_server(one);
  };
  both.connect();
  ASSERT_TRUE(both.is_connected()) << both.server->why();

  // Nothing that isn't the peer's own, once there are keys.
  give_garbage();
  ASSERT_EQ(SSL_write(both.client.ssl(), "hello", 5), 5);
  const std::deque<byte_list> sent = both.client.written();
  ASSERT_EQ(sent.size(), 1U);
  for (size_t at = 0; at < sent[0].size(); ++at) {
    byte_list changed = sent[0];
    changed[at] ^= 1;
    both.give_server(changed);
  }
  EXPECT_EQ(both.heard, "");
  both.give_server(sent[0]);
  both.give_server(sent[0]);
  EXPECT_EQ(both.heard, "hello");
  EXPECT_TRUE(both.is_connected());
  EXPECT_TRUE(both.to_client.empty()) << "none of it is answered";
}

TEST(DtlsTest, RenegotiationIsRefused) {
  call both;
  both.connect();
  ASSERT_TRUE(both.is_connected());
  const byte_list key = both.server->keys()->in.key_and_salt;
  SSL_renegotiate(both.client.ssl());
  SSL_do_handshake(both.client.ssl());
  for (const byte_list& one : both.client.written()) both.give_server(one);
  ASSERT_EQ(both.server->is(), state::kConnected);
  EXPECT_EQ(both.server->keys()->in.key_and_salt, key);
  ASSERT_EQ(both.to_client.size(), 1U);
  EXPECT_EQ(both.to_client[0][0], SSL3_RT_ALERT);
}

// The third fragment of a message that never becomes whole, over and over.
TEST(DtlsTest, APeerThatOnlyBeginsIsGivenUp) {
  call both;
  both.client.begin();
  for (const byte_list& one : both.client.written()) both.give_server(one);
  size_t given = 0;
  for (unsigned number = 100; both.server->is() == state::kHandshaking; ++number) {
    byte_list record = from_hex("16fefd0000 000000000000 03e8 0b 003000 0003 000100 0003dc");
    core_service::rtp::write_32(record.data() + 7, number);
    record.resize(record.size() + 0x3dc, 0x55);
    given += record.size();
    ASSERT_LT(given, 2 * dtls_session::kMostHandshakeBytes);
    both.give_server(record);
  }
  EXPECT_EQ(both.server->is(), state::kFailed);
  EXPECT_EQ(both.server->why(),
            "the peer has sent more than 65536 bytes, and the handshake isn't done");
}

TEST(CertificateTest, IsAKeyOfItsOwnThatItHasSigned) {
  X509* const one = SSL_CTX_get0_certificate(servers()->context());
  EXPECT_EQ(clients().fingerprint(), digest_of(EVP_sha256(), false));
  EXPECT_NE(servers()->fingerprint(), clients().fingerprint());
  EXPECT_EQ(X509_self_signed(one, 1), 1);
  EXPECT_EQ(X509_get_signature_nid(one), NID_ecdsa_with_SHA256);
  char group[32] = "";
  size_t size = 0;
  EVP_PKEY_get_group_name(X509_get0_pubkey(one), group, sizeof group, &size);
  EXPECT_EQ(std::string(group), "prime256v1");
  const time_t now = time(nullptr);
  const std::pair<time_t, int> moments[] = {{now - 25L * 3600, 1},
                                            {now - 23L * 3600, 0},
                                            {now + 364L * 86400, 0},
                                            {now + 366L * 86400, -1}};
  for (auto [moment, valid] : moments) {
    const int since = X509_cmp_time(X509_get0_notBefore(one), &moment);
    const int until = X509_cmp_time(X509_get0_notAfter(one), &moment);
    EXPECT_EQ(since > 0 ? 1 : until < 0 ? -1 : 0, valid) << moment - now;
  }
  EXPECT_NE(ASN1_INTEGER_cmp(X509_get0_serialNumber(one),
                             X509_get0_serialNumber(SSL_CTX_get0_certificate(clients().context()))),
            0);
}

TEST(LooksLikeDtls, AmongWhatComesOnItsPort) {
  for (const auto& [first, is] : {std::pair{0, false},
                                  {3, false},
                                  {19, false},
                                  {20, true},
                                  {22, true},
                                  {63, true},
                                  {64, false},
                                  {128, false}}) {
    byte_list bytes(13);
    bytes[0] = static_cast<uint8_t>(first);
    EXPECT_EQ(webrtc::looks_like_dtls(bytes.data(), bytes.size()), is) << first;
    EXPECT_FALSE(webrtc::looks_like_dtls(bytes.data(), 12)) << first;
  }
}

}  // namespace
}  // namespace zelta::test
