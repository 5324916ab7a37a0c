// SPDX-License-Identifier: Apache-2.0
// STUN, byte by byte: the messages of RFC 5769, broken ones, and what we answer.
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "core_service/rtp/network_order.h"
#include "core_service/webrtc/ice_credentials.h"
#include "core_service/webrtc/stun.h"
#include "support/counted_new.h"
#include "support/hex.h"

namespace zelta::test {
namespace {

using namespace core_service::webrtc;

constexpr std::string_view kPassword = "VOkJxbRl1RmTxUk/WvJxBt";
const std::string kCookieAndTransaction = "2112a442 b7e7a701bc34d686fa87dfae";
// RFC 5769, section 2.1 ...
const std::string kRequest =
    "00010058" + kCookieAndTransaction +
    "80220010 5354554e207465737420636c69656e74 00240004 6e0001ff 80290008 932ff9b151263b36"
    "00060009 6576746a3a68367659202020"
    "00080014 9aeaa70cbfd8cb56781ef2b5b2d3f249c1b571a2 80280004 e57a3bcf";
// ... 2.2 ...
const std::string kSeen4 = "00200008 0001a147e112a643";
const std::string kResponse4 = "0101003c" + kCookieAndTransaction +
                               "8022000b 7465737420766563746f7220" + kSeen4 +
                               "00080014 2b91f599fd9e90c38c7489f92af9ba53f06be7d7"
                               "80280004 c07d4c96";
// ... and 2.3.
const std::string kSeen6 = "00200014 0002a147 0113a9faa5d3f179bc25f4b5bed2b9d9";
const std::string kResponse6 = "01010048" + kCookieAndTransaction +
                               "8022000b 7465737420766563746f7220" + kSeen6 +
                               "00080014 a382954e4be67bf11784c97c8292c275bfe3ed41"
                               "80280004 c8fb0b4c";

std::optional<stun_message> parsed(const byte_list& bytes) {
  return parse_stun(bytes.data(), bytes.size());
}

// A Binding request of these attributes, its length right.
byte_list request_of(const std::string& attributes) {
  byte_list bytes = from_hex("00010000" + kCookieAndTransaction + attributes);
  core_service::rtp::write_16(bytes.data() + 2, static_cast<uint32_t>(bytes.size() - 20));
  return bytes;
}

TEST(StunTest, TheRfcsMessagesAreReadAndTheirIntegrityIsTheirPasswords) {
  const struct {
    const std::string& hex;
    stun_class is;
    std::string_view username;
  } rows[] = {{kRequest, stun_class::kRequest, "evtj:h6vY"},
              {kResponse4, stun_class::kSuccess, ""},
              {kResponse6, stun_class::kSuccess, ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.hex);
    byte_list bytes = from_hex(row.hex);
    const auto message = parsed(bytes);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->is, row.is);
    EXPECT_EQ(message->method, kBindingMethod);
    EXPECT_EQ(to_hex(message->transaction.data(), 12), "b7e7a701bc34d686fa87dfae");
    EXPECT_EQ(message->username, row.username);
    EXPECT_TRUE(message->has_fingerprint);
    EXPECT_TRUE(has_integrity_of(bytes.data(), *message, kPassword));
    EXPECT_FALSE(has_integrity_of(bytes.data(), *message, "VOkJxbRl1RmTxUk/WvJxBu"));
    EXPECT_FALSE(has_integrity_of(bytes.data(), *message, ""));
    bytes[9] ^= 1;
    EXPECT_FALSE(has_integrity_of(bytes.data(), *message, kPassword)) << "another transaction";
  }
  const byte_list bytes = from_hex(kRequest);
  const auto request = parsed(bytes);
  EXPECT_EQ(request->priority, 0x6e0001ffU);
  EXPECT_TRUE(request->controlled && !request->controlling && !request->use_candidate);
  EXPECT_EQ(request->unknown_count, 0U) << "SOFTWARE may be passed over";
}

// One byte less or other anywhere, and a message with a fingerprint isn't one.
TEST(StunTest, AChangedMessageIsNone) {
  const byte_list whole = from_hex(kRequest);
  for (size_t at = 0; at < whole.size(); ++at) {
    byte_list changed = whole;
    changed[at] ^= 1;
    const auto message = parsed(changed);
    // An optional attribute in place of FINGERPRINT leaves MESSAGE-INTEGRITY as it is.
    EXPECT_TRUE(!message || !message->has_fingerprint) << at;
    changed = whole;
    changed.resize(at);
    EXPECT_FALSE(parsed(changed)) << "cut off at " << at;
  }
}

// What a message is read as: a letter each of what it has, the unknown ones as numbers; "none".
std::string told(const byte_list& bytes) {
  const auto message = parsed(bytes);
  if (!message) return "none";
  std::string text(message->username);
  text += message->use_candidate ? "U" : "";
  text += message->controlled ? "D" : "";
  text += message->controlling ? "G" : "";
  text += message->priority != 0 ? "P" + std::to_string(message->priority) : "";
  text += message->has_integrity ? "I" : "";
  for (size_t i = 0; i < message->unknown_count; ++i) {
    text += " " + std::to_string(message->unknown[i]);
  }
  return text;
}

TEST(StunTest, AttributesAreReadByTheirLengths) {
  const std::string integrity = "00080014" + std::string(40, '0');
  const std::pair<std::string, const char*> rows[] = {
      {"", ""},
      {"00060002 613a0000", "a:"},
      {"00060002 613a0000 00060002 623a0000", "a:"},  // of two the first
      {"00060000", ""},
      {"00060009 613a0000", "none"},  // past the end
      {"0006ffff", "none"},
      {"00250000", "U"},
      {"00250004 00000000", "none"},
      {"80290008 0000000000000001", "D"},
      {"80290004 00000001", "none"},
      {"802a0008 0000000000000001", "G"},
      {"802a0009 000000000000000100000000", "none"},
      {"00240004 00000007 00240004 00000008", "P7"},
      {"00240003 00000700", "none"},
      {integrity, "I"},
      {"00080010" + std::string(32, '0'), "none"},
      // What isn't protected doesn't count, but has to be whole.
      {integrity + "00250000 00060002 613a0000 7fff0000", "I"},
      {integrity + "001c0020" + std::string(64, '0'), "I"},
      {integrity + "00250008 00000000", "none"},
      {"001c0020" + std::string(64, '0') + "00250000", ""},
      {"7ffe0000 80ff0000 7ffd0001 00000000", " 32766 32765"},
      {"70010000 70020000 70030000 70040000 70050000", " 28673 28674 28675 28676"},
      {"00140001 61000000 00150001 61000000", ""},  // REALM and NONCE are known
      {"80280004 00000000", "none"},                // no FINGERPRINT of it
      {"80280002 00000000", "none"},
  };
  for (const auto& [attributes, says] : rows) {
    EXPECT_EQ(told(request_of(attributes)), says) << attributes;
  }
  EXPECT_EQ(told(request_of("00060201" + std::string(1032, '0'))).size(), 513U);
  EXPECT_EQ(told(request_of("00060202" + std::string(1032, '0'))), "none");
  // A fingerprint that is right, and has something behind it.
  const byte_list vector = from_hex(kRequest);
  byte_list longer = vector;
  longer.insert(longer.end(), {0x80, 0x22, 0, 0});
  longer[3] = static_cast<uint8_t>(longer[3] + 4);
  EXPECT_FALSE(parsed(longer));
}

TEST(StunTest, WhatIsntStunDoesntLookLikeIt) {
  const std::pair<std::string, bool> rows[] = {
      {"00010000" + kCookieAndTransaction, true},
      {"03ff0000" + kCookieAndTransaction, true},
      {"04010000" + kCookieAndTransaction, false},
      {"80600000" + kCookieAndTransaction, false},  // RTP
      {"16fefd00" + kCookieAndTransaction, false},  // DTLS
      {"00010000 2112a443 b7e7a701bc34d686fa87dfae", false},
      {"00010004" + kCookieAndTransaction, false},
      {"00010000" + kCookieAndTransaction + "00060000", false},
      {"00010002" + kCookieAndTransaction + "0006", false},
      {"00010000 2112a442 b7e7a701bc34d686fa87df", false},
      {"", false},
  };
  for (const auto& [hex, does] : rows) {
    const byte_list bytes = from_hex(hex);
    EXPECT_EQ(looks_like_stun(bytes.data(), bytes.size()), does) << hex;
  }
}

TEST(StunTest, ClassAndMethodShareTheirBits) {
  const std::tuple<const char*, stun_class, int> rows[] = {
      {"0011", stun_class::kIndication, 1}, {"0101", stun_class::kSuccess, 1},
      {"0111", stun_class::kError, 1},      {"0002", stun_class::kRequest, 2},
      {"02ef", stun_class::kRequest, 255},
  };
  for (const auto& [type, is, method] : rows) {
    const auto message = parsed(from_hex(type + ("0000" + kCookieAndTransaction)));
    ASSERT_TRUE(message.has_value()) << type;
    EXPECT_EQ(message->is, is) << type;
    EXPECT_EQ(message->method, method) << type;
  }
}

// The attributes between the header and MESSAGE-INTEGRITY, of an answer that is right.
std::string answered(const stun_buffer& bytes, size_t size, std::string_view password) {
  const auto message = parse_stun(bytes.data(), size);
  if (!message || !message->has_fingerprint) return "none";
  if (message->has_integrity == password.empty()) return "integrity";
  if (!password.empty() && !has_integrity_of(bytes.data(), *message, password)) return "password";
  if (to_hex(message->transaction.data(), 12) != "b7e7a701bc34d686fa87dfae") return "transaction";
  const size_t end = password.empty() ? size - 8 : message->integrity_at;
  return to_hex(bytes.data() + 20, end - 20);
}

TEST(StunTest, TheAddressThatWasSeenIsTold) {
  const stun_transaction transaction = parsed(from_hex(kRequest))->transaction;
  const std::pair<const char*, std::string> rows[] = {
      {"192.0.2.1", kSeen4},
      {"::ffff:192.0.2.1", kSeen4},
      {"2001:db8:1234:5678:11:2233:4455:6677", kSeen6},
  };
  for (const auto& [text, attribute] : rows) {
    sockaddr_storage seen{};
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(32853);
    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(32853);
    if (inet_pton(AF_INET, text, &in.sin_addr) == 1) {
      std::memcpy(&seen, &in, sizeof in);
    } else {
      ASSERT_EQ(inet_pton(AF_INET6, text, &in6.sin6_addr), 1) << text;
      std::memcpy(&seen, &in6, sizeof in6);
    }
    stun_buffer to{};
    const size_t size =
        write_binding_success(to, transaction, reinterpret_cast<const sockaddr*>(&seen), kPassword);
    EXPECT_EQ(answered(to, size, kPassword), without_spaces(attribute)) << text;
    EXPECT_EQ(to_hex(to.data(), 2), "0101");
  }
  sockaddr other{};
  other.sa_family = AF_UNIX;
  stun_buffer to{};
  EXPECT_EQ(write_binding_success(to, transaction, &other, kPassword), 0U);
}

TEST(StunTest, ARefusalSaysWhy) {
  const byte_list unknown = request_of("70010000 70020000 70030000");
  const auto of = parsed(unknown);
  ASSERT_TRUE(of.has_value());
  const stun_transaction transaction = of->transaction;
  const struct {
    int code;
    std::string reason;
    const stun_message* of;
    std::string_view password;
    std::string attributes;
  } rows[] = {
      {400, "Bad", nullptr, "", "00090007 00000400 42616400"},
      {401, "", nullptr, "", "00090004 00000401"},
      {487, "Role", &*of, kPassword, "00090008 00000457 526f6c65"},
      {420, "", &*of, kPassword, "00090004 00000414 000a0006 7001700270030000"},
      {420, "", nullptr, kPassword, "00090004 00000414"},
      {400, std::string(500, 'a'), nullptr, kPassword,
       "00090084 00000400" + to_hex(byte_list(128, 'a').data(), 128)},
  };
  for (const auto& row : rows) {
    stun_buffer to;
    to.fill(0xff);  // padding has to be written as well
    const size_t size =
        write_binding_error(to, transaction, row.code, row.reason, row.of, row.password);
    ASSERT_LE(size, to.size());
    EXPECT_EQ(to_hex(to.data(), 2), "0111");
    EXPECT_EQ(answered(to, size, row.password), without_spaces(row.attributes)) << row.code;
  }
}

TEST(StunTest, ACheckIsAnsweredWithoutAnAllocation) {
  const byte_list bytes = from_hex(kRequest);
  sockaddr_in seen{};
  seen.sin_family = AF_INET;
  stun_buffer to{};
  size_t right = 0;
  const auto answer = [&] {
    const auto message = parse_stun(bytes.data(), bytes.size());
    right += message && has_integrity_of(bytes.data(), *message, kPassword) ? 1U : 0U;
    right += write_binding_success(to, message->transaction,
                                   reinterpret_cast<const sockaddr*>(&seen), kPassword) > 0
                 ? 1U
                 : 0U;
  };
  answer();
  const size_t before = allocations();
  for (int i = 0; i < 10; ++i) answer();
  EXPECT_EQ(allocations(), before);
  EXPECT_EQ(right, 22U);
}

TEST(IceCredentials, AreOfIceCharactersAndNeverTheSame) {
  const auto one = make_ice_credentials();
  const auto other = make_ice_credentials();
  ASSERT_TRUE(one && other);
  EXPECT_EQ(one->ufrag.size(), 8U);
  EXPECT_EQ(one->password.size(), 24U);
  EXPECT_NE(one->ufrag, other->ufrag);
  EXPECT_NE(one->password, other->password);
  EXPECT_EQ(
      (one->ufrag + one->password)
          .find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"),
      std::string::npos);
}

}  // namespace
}  // namespace zelta::test
