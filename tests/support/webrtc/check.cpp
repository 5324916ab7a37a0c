// SPDX-License-Identifier: Apache-2.0
#include "support/webrtc/check.h"

#include <algorithm>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "core_service/rtp/network_order.h"

namespace zelta::test {
namespace {

using core_service::rtp::read_16;
using core_service::rtp::read_32;
using core_service::rtp::write_16;
using core_service::rtp::write_32;

// RFC 8489, sections 5 and 18; RFC 8445, section 16.
constexpr uint32_t kCookie = 0x2112a442;
constexpr size_t kHeader = 20;
constexpr uint32_t kRequest = 0x0001;
constexpr uint32_t kSuccess = 0x0101;
constexpr uint32_t kError = 0x0111;
constexpr uint32_t kUsername = 0x0006;
constexpr uint32_t kIntegrity = 0x0008;
constexpr uint32_t kErrorCode = 0x0009;
constexpr uint32_t kPriority = 0x0024;
constexpr uint32_t kUseCandidate = 0x0025;
constexpr uint32_t kFingerprint = 0x8028;
constexpr uint32_t kControlling = 0x802a;
constexpr size_t kIntegrityBytes = 20;
constexpr size_t kFingerprintBytes = 4;

using message = std::vector<uint8_t>;

// The place of its value; the message's length counts it already.
uint8_t* add(message& to, uint32_t type, size_t size) {
  const size_t at = to.size();
  to.resize(at + 4 + (size + 3) / 4 * 4);
  write_16(&to[at], type);
  write_16(&to[at + 2], static_cast<uint32_t>(size));
  write_16(&to[2], static_cast<uint32_t>(to.size() - kHeader));
  return to.data() + at + 4;
}

// Of the message up to `end`, as if this many more bytes were its last.
message shortened(const uint8_t* bytes, size_t end, size_t more) {
  message part(bytes, bytes + end);
  write_16(&part[2], static_cast<uint32_t>(end + more - kHeader));
  return part;
}

std::array<uint8_t, kIntegrityBytes> integrity_of(const uint8_t* bytes, size_t end,
                                                  const std::string& password) {
  const message part = shortened(bytes, end, 4 + kIntegrityBytes);
  std::array<uint8_t, kIntegrityBytes> made{};
  HMAC(EVP_sha1(), password.data(), static_cast<int>(password.size()), part.data(), part.size(),
       made.data(), nullptr);
  return made;
}

uint32_t fingerprint_of(const uint8_t* bytes, size_t end) {
  uint32_t crc = 0xffffffff;
  for (const uint8_t byte : shortened(bytes, end, 4 + kFingerprintBytes)) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xedb88320U : 0U);
  }
  return ~crc ^ 0x5354554eU;
}

}  // namespace

std::vector<uint8_t> write_check(const check_transaction& transaction, const check_terms& terms) {
  message made(kHeader);
  write_16(made.data(), kRequest);
  write_32(&made[4], kCookie);
  std::copy(transaction.begin(), transaction.end(), &made[8]);
  const std::string& name = terms.username;
  std::copy(name.begin(), name.end(), add(made, kUsername, name.size()));
  write_32(add(made, kPriority, 4), terms.priority);
  uint8_t* const breaker = add(made, kControlling, 8);
  write_32(breaker, static_cast<uint32_t>(terms.tie_breaker >> 32U));
  write_32(breaker + 4, static_cast<uint32_t>(terms.tie_breaker));
  add(made, kUseCandidate, 0);
  const auto mac = integrity_of(made.data(), made.size(), terms.password);
  std::copy(mac.begin(), mac.end(), add(made, kIntegrity, mac.size()));
  const uint32_t crc = fingerprint_of(made.data(), made.size());
  write_32(add(made, kFingerprint, kFingerprintBytes), crc);
  return made;
}

std::optional<check_answer> read_check_answer(const uint8_t* bytes, size_t size,
                                              const std::string& password) {
  if (size < kHeader || read_32(bytes + 4) != kCookie || read_16(bytes + 2) != size - kHeader) {
    return std::nullopt;
  }
  const uint32_t type = read_16(bytes);
  if (type != kSuccess && type != kError) return std::nullopt;
  check_answer made;
  std::copy_n(bytes + 8, made.transaction.size(), made.transaction.begin());
  bool proven = false;
  bool whole = false;
  for (size_t at = kHeader; at + 4 <= size;) {
    const uint32_t name = read_16(bytes + at);
    const size_t length = read_16(bytes + at + 2);
    const uint8_t* const value = bytes + at + 4;
    if (length > size - at - 4) return std::nullopt;
    if (name == kErrorCode && length >= 4) made.error = value[2] * 100 + value[3];
    if (name == kIntegrity && length == kIntegrityBytes) {
      const auto mac = integrity_of(bytes, at, password);
      proven = std::equal(mac.begin(), mac.end(), value);
    }
    if (name == kFingerprint && length == kFingerprintBytes) {
      whole = read_32(value) == fingerprint_of(bytes, at);
    }
    at += 4 + (length + 3) / 4 * 4;
  }
  if (!whole || (type == kSuccess && !proven) || (type == kError && made.error == 0)) {
    return std::nullopt;
  }
  return made;
}

}  // namespace zelta::test
