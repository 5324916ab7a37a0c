// SPDX-License-Identifier: Apache-2.0
// STUN from the side of a full ICE agent (RFC 8445, section 7.2): checks, and what is answered.
// Written by itself, so that it shares no mistake with the end that it is meant for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::test {

using check_transaction = std::array<uint8_t, 12>;

struct check_terms {
  std::string username;  // "theirs:ours"
  std::string password;  // theirs
  uint64_t tie_breaker = 0;
  uint32_t priority = 0;
};

// A binding request with USE-CANDIDATE, of the controlling end.
std::vector<uint8_t> write_check(const check_transaction& transaction, const check_terms& terms);

struct check_answer {
  check_transaction transaction{};
  int error = 0;  // 0: success
};

// None for what is no answer, or one whose FINGERPRINT or, on success, MESSAGE-INTEGRITY is wrong.
std::optional<check_answer> read_check_answer(const uint8_t* bytes, size_t size,
                                              const std::string& password);

}  // namespace zelta::test
