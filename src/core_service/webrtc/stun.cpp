// SPDX-License-Identifier: Apache-2.0
//   0                   1                   2                   3
//  |0 0| class and method (14)     | length behind the header (16) |
//  |                      cookie 0x2112a442                        |
//  |                      transaction (96)                         |
//  then attributes: type (16), length (16), value, padded to 32 bits.
#include "core_service/webrtc/stun.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include "core_service/rtp/network_order.h"
#include "core_service/webrtc/openssl.h"

namespace zelta::core_service::webrtc {
namespace {

using rtp::read_16;
using rtp::read_32;
using rtp::write_16;
using rtp::write_32;

constexpr uint32_t kCookie = 0x2112a442;
constexpr size_t kHeaderBytes = 20;
constexpr size_t kAttributeHeaderBytes = 4;
constexpr size_t kIntegrityBytes = 20;
constexpr size_t kFingerprintBytes = 4;
constexpr size_t kMostReasonBytes = 128;
// Two names of 256 characters and a colon (RFC 8839, section 5.4).
constexpr size_t kMostUsernameBytes = 513;
constexpr uint32_t kFingerprintMask = 0x5354554e;  // RFC 8489, section 14.7

constexpr uint16_t kBindingSuccess = 0x0101;
constexpr uint16_t kBindingError = 0x0111;

// RFC 8489, section 18.3; RFC 8445, section 16.1.
constexpr uint16_t kMappedAddress = 0x0001;
constexpr uint16_t kUsername = 0x0006;
constexpr uint16_t kIntegrity = 0x0008;
constexpr uint16_t kErrorCode = 0x0009;
constexpr uint16_t kUnknownAttributes = 0x000a;
constexpr uint16_t kRealm = 0x0014;
constexpr uint16_t kNonce = 0x0015;
constexpr uint16_t kIntegritySha256 = 0x001c;
constexpr uint16_t kXorMappedAddress = 0x0020;
constexpr uint16_t kPriority = 0x0024;
constexpr uint16_t kUseCandidate = 0x0025;
constexpr uint16_t kFingerprint = 0x8028;
constexpr uint16_t kControlled = 0x8029;
constexpr uint16_t kControlling = 0x802a;
// From here on an attribute may be passed over by who doesn't know it.
constexpr uint16_t kFirstOptional = 0x8000;

constexpr uint8_t kFamily4 = 1;
constexpr uint8_t kFamily6 = 2;

struct attribute {
  uint16_t type;
  size_t size;  // without padding
  const uint8_t* value;
};

constexpr size_t padded(size_t size) {
  return (size + 3) & ~size_t{3};
}

// CRC-32 of ITU V.42, least bit first.
constexpr std::array<uint32_t, 256> make_crc_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t byte = 0; byte < table.size(); ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1U) ^ ((value & 1U) * 0xedb88320U);
    table[byte] = value;
  }
  return table;
}
constexpr std::array<uint32_t, 256> kCrcTable = make_crc_table();

// Of the message up to FINGERPRINT, whose length counts it already.
uint32_t fingerprint_of(const uint8_t* bytes, size_t size) {
  uint32_t crc = 0xffffffffU;
  for (size_t i = 0; i < size; ++i) crc = (crc >> 8U) ^ kCrcTable[(crc ^ bytes[i]) & 0xffU];
  return ~crc ^ kFingerprintMask;
}

// A thread's own: to fetch the algorithm costs more than the HMAC.
evp_mac_ctx_st* hmac_sha1() {
  thread_local const owned<evp_mac_ctx_st> context = [] {
    const owned<evp_mac_st> algorithm(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
    owned<evp_mac_ctx_st> made(EVP_MAC_CTX_new(algorithm.get()));
    char digest[] = "SHA1";
    const OSSL_PARAM wanted[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_construct_end()};
    if (!made || EVP_MAC_CTX_set_params(made.get(), wanted) != 1) made.reset();
    return made;
  }();
  return context.get();
}

using integrity = std::array<uint8_t, kIntegrityBytes>;

// The HMAC of the message in front of `at`, as if MESSAGE-INTEGRITY, which stands there, were its
// end: the length in the header says so (RFC 8489, section 14.5).
bool compute_integrity(const uint8_t* bytes, size_t at, std::string_view password, integrity& to) {
  std::array<uint8_t, 4> begin{bytes[0], bytes[1]};
  const size_t length = at + kAttributeHeaderBytes + kIntegrityBytes - kHeaderBytes;
  write_16(begin.data() + 2, static_cast<uint32_t>(length));
  evp_mac_ctx_st* const context = hmac_sha1();
  const auto* const key = reinterpret_cast<const uint8_t*>(password.data());
  size_t written = 0;
  const bool done =
      context != nullptr && EVP_MAC_init(context, key, password.size(), nullptr) == 1 &&
      EVP_MAC_update(context, begin.data(), begin.size()) == 1 &&
      EVP_MAC_update(context, bytes + begin.size(), at - begin.size()) == 1 &&
      EVP_MAC_final(context, to.data(), &written, to.size()) == 1 && written == to.size();
  if (!done) ERR_clear_error();
  return done;
}

void read_type(uint16_t type, stun_message& to) {
  // The two bits of the class stand between those of the method.
  to.is = static_cast<stun_class>((type >> 4U & 1U) | (type >> 7U & 2U));
  to.method = static_cast<uint16_t>((type & 0xfU) | (type >> 1U & 0x70U) | (type >> 2U & 0xf80U));
}

// False when the attribute isn't as long as it should be.
bool take(const attribute& one, stun_message& to) {
  switch (one.type) {
    case kUsername:
      if (one.size > kMostUsernameBytes) return false;
      // Of several the first counts (RFC 8489, section 14).
      if (to.username.empty()) {
        to.username = {reinterpret_cast<const char*>(one.value), one.size};
      }
      return true;
    case kPriority:
      if (one.size != 4) return false;
      if (to.priority == 0) to.priority = read_32(one.value);
      return true;
    case kUseCandidate:
      to.use_candidate = true;
      return one.size == 0;
    case kControlled:
      to.controlled = true;
      return one.size == 8;
    case kControlling:
      to.controlling = true;
      return one.size == 8;
    case kMappedAddress:
    case kErrorCode:
    case kUnknownAttributes:
    case kRealm:
    case kNonce:
    case kXorMappedAddress:
      return true;  // known, and of no use here
    default:
      if (one.type < kFirstOptional && to.unknown_count < to.unknown.size()) {
        to.unknown[to.unknown_count++] = one.type;
      }
      return true;
  }
}

// The longest: an error that names attributes.
static_assert(kHeaderBytes + 5 * kAttributeHeaderBytes + (4 + kMostReasonBytes) +
                  2 * std::tuple_size_v<decltype(stun_message::unknown)> + kIntegrityBytes +
                  kFingerprintBytes <=
              kMostStunBytes);

// Writes one message: attributes, then what protects them.
class writer {
 public:
  writer(stun_buffer& to, uint16_t type, const stun_transaction& transaction) : bytes_(to.data()) {
    write_16(bytes_, type);
    write_32(bytes_ + 4, kCookie);
    std::memcpy(bytes_ + 8, transaction.data(), transaction.size());
  }

  // The place of its value, of zeros, as is the padding.
  uint8_t* add(uint16_t type, size_t size) {
    uint8_t* const to = bytes_ + size_;
    size_ += kAttributeHeaderBytes + padded(size);
    write_16(to, type);
    write_16(to + 2, static_cast<uint32_t>(size));
    std::fill(to + kAttributeHeaderBytes, bytes_ + size_, uint8_t{0});
    write_16(bytes_ + 2, static_cast<uint32_t>(size_ - kHeaderBytes));
    return to + kAttributeHeaderBytes;
  }

  size_t finish(std::string_view password) {
    if (!password.empty()) {
      const size_t at = size_;
      integrity mac{};
      if (!compute_integrity(bytes_, at, password, mac)) return 0;
      std::copy(mac.begin(), mac.end(), add(kIntegrity, mac.size()));
    }
    const size_t protected_bytes = size_;
    uint8_t* const fingerprint = add(kFingerprint, kFingerprintBytes);
    write_32(fingerprint, fingerprint_of(bytes_, protected_bytes));
    return size_;
  }

 private:
  uint8_t* const bytes_;
  size_t size_ = kHeaderBytes;
};

// An address and a port as XOR-MAPPED-ADDRESS has them, before they are masked.
struct plain_address {
  uint8_t family = 0;  // 0: none that STUN knows
  uint16_t port = 0;
  std::array<uint8_t, 16> bytes{};
  size_t size = 0;
};

plain_address plain(const sockaddr* of) {
  plain_address is;
  if (of->sa_family == AF_INET) {
    sockaddr_in from{};
    std::memcpy(&from, of, sizeof from);
    is = {kFamily4, ntohs(from.sin_port), {}, 4};
    std::memcpy(is.bytes.data(), &from.sin_addr, is.size);
  } else if (of->sa_family == AF_INET6) {
    sockaddr_in6 from{};
    std::memcpy(&from, of, sizeof from);
    const bool is_4 = IN6_IS_ADDR_V4MAPPED(&from.sin6_addr);
    is = {is_4 ? kFamily4 : kFamily6, ntohs(from.sin6_port), {}, is_4 ? size_t{4} : size_t{16}};
    std::memcpy(is.bytes.data(), from.sin6_addr.s6_addr + (16 - is.size), is.size);
  }
  return is;
}

}  // namespace

bool looks_like_stun(const uint8_t* bytes, size_t size) {
  return size >= kHeaderBytes && bytes[0] <= 3 && read_32(bytes + 4) == kCookie && size % 4 == 0 &&
         size - kHeaderBytes == read_16(bytes + 2);
}

std::optional<stun_message> parse_stun(const uint8_t* bytes, size_t size) {
  if (!looks_like_stun(bytes, size)) return std::nullopt;
  stun_message message;
  read_type(read_16(bytes), message);
  std::copy_n(bytes + 8, message.transaction.size(), message.transaction.begin());
  bool behind_integrity = false;
  // All is a multiple of 4 bytes long, so that where there is something, there is a header.
  for (size_t at = kHeaderBytes, next = 0; at < size; at = next) {
    const attribute one{read_16(bytes + at), read_16(bytes + at + 2),
                        bytes + at + kAttributeHeaderBytes};
    if (one.size > size - at - kAttributeHeaderBytes) return std::nullopt;
    next = at + kAttributeHeaderBytes + padded(one.size);
    if (one.type == kFingerprint) {
      const bool right = one.size == kFingerprintBytes && next == size &&
                         read_32(one.value) == fingerprint_of(bytes, at);
      if (!right) return std::nullopt;
      message.has_fingerprint = true;
    } else if (behind_integrity) {
      continue;
    } else if (one.type == kIntegrity) {
      if (one.size != kIntegrityBytes) return std::nullopt;
      behind_integrity = message.has_integrity = true;
      message.integrity_at = at;
    } else if (one.type == kIntegritySha256) {
      behind_integrity = true;
    } else if (!take(one, message)) {
      return std::nullopt;
    }
  }
  return message;
}

bool has_integrity_of(const uint8_t* bytes, const stun_message& of, std::string_view password) {
  integrity mac{};
  return of.has_integrity && !password.empty() &&
         compute_integrity(bytes, of.integrity_at, password, mac) &&
         CRYPTO_memcmp(mac.data(), bytes + of.integrity_at + kAttributeHeaderBytes, mac.size()) ==
             0;
}

size_t write_binding_success(stun_buffer& to, const stun_transaction& transaction,
                             const sockaddr* seen, std::string_view password) {
  const plain_address address = plain(seen);
  if (address.family == 0) return 0;
  writer message(to, kBindingSuccess, transaction);
  uint8_t* const value = message.add(kXorMappedAddress, 4 + address.size);
  value[1] = address.family;
  write_16(value + 2, address.port ^ (kCookie >> 16U));
  // The mask is the cookie and the transaction, as they stand in the header.
  for (size_t i = 0; i < address.size; ++i) {
    value[4 + i] = static_cast<uint8_t>(address.bytes[i] ^ to[4 + i]);
  }
  return message.finish(password);
}

size_t write_binding_error(stun_buffer& to, const stun_transaction& transaction, int code,
                           std::string_view reason, const stun_message* of,
                           std::string_view password) {
  writer message(to, kBindingError, transaction);
  reason = reason.substr(0, kMostReasonBytes);
  uint8_t* const value = message.add(kErrorCode, 4 + reason.size());
  value[2] = static_cast<uint8_t>(code / 100);
  value[3] = static_cast<uint8_t>(code % 100);
  std::copy(reason.begin(), reason.end(), value + 4);
  if (code == 420 && of != nullptr) {
    uint8_t* const names = message.add(kUnknownAttributes, 2 * of->unknown_count);
    for (size_t i = 0; i < of->unknown_count; ++i) write_16(names + 2 * i, of->unknown[i]);
  }
  return message.finish(password);
}

}  // namespace zelta::core_service::webrtc
