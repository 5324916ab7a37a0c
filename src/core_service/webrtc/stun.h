// SPDX-License-Identifier: Apache-2.0
// STUN as far as an ICE-lite end takes part in it: checks are read, and answered (RFC 8489; RFC
// 8445, section 7.3). No state, nothing is allocated; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

struct sockaddr;

namespace zelta::core_service::webrtc {

using stun_transaction = std::array<uint8_t, 12>;

// The longest message that is written here.
constexpr size_t kMostStunBytes = 256;
using stun_buffer = std::array<uint8_t, kMostStunBytes>;

constexpr uint16_t kBindingMethod = 1;

enum class stun_class { kRequest, kIndication, kSuccess, kError };

// What a message says: views into its datagram, valid as long as that is.
struct stun_message {
  stun_class is = stun_class::kRequest;
  uint16_t method = 0;
  stun_transaction transaction{};
  std::string_view username;  // "ours:theirs"; empty: none
  bool use_candidate = false;
  bool controlled = false;   // ICE-CONTROLLED is there
  bool controlling = false;  // ICE-CONTROLLING is there
  uint32_t priority = 0;     // 0: none
  bool has_integrity = false;
  size_t integrity_at = 0;  // offset of MESSAGE-INTEGRITY's header
  bool has_fingerprint = false;
  // Attributes that must be understood to answer, and aren't known here: the first of them, to be
  // named in the answer with code 420.
  std::array<uint16_t, 4> unknown{};
  size_t unknown_count = 0;
};

// Whether a datagram is STUN among what else comes on its port (RFC 7983, section 7): the first
// byte, the cookie, and a length that is the datagram's.
bool looks_like_stun(const uint8_t* bytes, size_t size);

// None when `bytes` are no STUN message: a length that leads past the end or isn't its attribute's,
// or a FINGERPRINT that is wrong or not the last. What stands behind MESSAGE-INTEGRITY, which
// doesn't protect it, is passed over (RFC 8489, section 14.5).
std::optional<stun_message> parse_stun(const uint8_t* bytes, size_t size);

// Whether MESSAGE-INTEGRITY was made with `password`. `of`: what parse_stun() read of `bytes`.
// False as well when the message has none, or the password is empty.
bool has_integrity_of(const uint8_t* bytes, const stun_message& of, std::string_view password);

// The answer to a check. `seen`: the address that it came from, AF_INET or AF_INET6; an IPv4-mapped
// one is told as IPv4. `password`: ours. The answer's size; 0, and nothing is to be sent, for
// another family or when OpenSSL has no HMAC-SHA1.
size_t write_binding_success(stun_buffer& to, const stun_transaction& transaction,
                             const sockaddr* seen, std::string_view password);

// The answer to a request that can't be served: `code` 300 to 699, for 420 with the attributes that
// weren't known of `of`, which else isn't looked at and may be null. `reason` is cut off at 128
// bytes. An empty `password` leaves MESSAGE-INTEGRITY out, as it must be where the peer has proven
// nothing (RFC 8489, section 9.1.3). The size, as above.
size_t write_binding_error(stun_buffer& to, const stun_transaction& transaction, int code,
                           std::string_view reason, const stun_message* of,
                           std::string_view password);

}  // namespace zelta::core_service::webrtc
