// SPDX-License-Identifier: Apache-2.0
// A datagram of STUN, its integrity, and both answers to it.
#include <algorithm>

#include <netinet/in.h>

#include "core_service/webrtc/stun.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service::webrtc;

constexpr const char* kPassword = "a password of 22 chars";

// What we write has to be a message of ours.
void check_answer(const stun_buffer& bytes, size_t size, const stun_message& of, bool has_integrity,
                  stun_class is) {
  require(size > 0 && size <= bytes.size(), "an answer that doesn't fit");
  const std::vector<uint8_t> alone(bytes.begin(), bytes.begin() + static_cast<long>(size));
  const auto answer = parse_stun(alone.data(), alone.size());
  require(answer && answer->is == is && answer->has_fingerprint, "an answer that is none");
  require(answer->transaction == of.transaction, "an answer to another");
  require(answer->has_integrity == has_integrity, "an answer with another protection");
  require(!has_integrity || has_integrity_of(alone.data(), *answer, kPassword),
          "an answer of another's");
}

void take(const std::vector<uint8_t>& bytes) {
  const auto message = parse_stun(bytes.data(), bytes.size());
  if (!message) return;
  require(looks_like_stun(bytes.data(), bytes.size()), "a message that doesn't look like one");
  const auto* const begin = reinterpret_cast<const char*>(bytes.data());
  require(message->username.empty() ||
              (message->username.data() >= begin + 20 &&
               message->username.data() + message->username.size() <= begin + bytes.size()),
          "a username past the end");
  require(message->unknown_count <= message->unknown.size(), "more unknown than there is room for");
  require(!message->has_integrity || message->integrity_at + 24 <= bytes.size(),
          "an integrity past the end");
  require(!has_integrity_of(bytes.data(), *message, "another"), "a password of nobody's");

  stun_buffer to{};
  sockaddr_in6 seen{};
  seen.sin6_family = AF_INET6;
  std::copy_n(bytes.begin(), sizeof seen.sin6_addr, seen.sin6_addr.s6_addr);
  size_t size = write_binding_success(to, message->transaction,
                                      reinterpret_cast<const sockaddr*>(&seen), kPassword);
  check_answer(to, size, *message, true, stun_class::kSuccess);
  const std::string_view reason(begin, std::min<size_t>(bytes.size(), 300));
  for (const char* const password : {"", kPassword}) {
    size = write_binding_error(to, message->transaction, 420, reason, &*message, password);
    check_answer(to, size, *message, *password != '\0', stun_class::kError);
  }
}

std::string message_of(const std::string& attributes) {
  return std::string("\0\1\0", 3) + static_cast<char>(attributes.size()) + "\x21\x12\xa4\x42" +
         "transaction1" + attributes;
}

std::string attribute(uint16_t type, const std::string& value) {
  std::string bytes;
  for (const int shift : {8, 0}) bytes += static_cast<char>(type >> shift);
  bytes += '\0';
  return bytes + static_cast<char>(value.size()) + value +
         std::string((4 - value.size() % 4) % 4, ' ');
}

}  // namespace

std::vector<std::string> seeds() {
  const std::string check = attribute(0x0006, "ours:theirs") + attribute(0x0024, "\x6e_~\x7f") +
                            attribute(0x802a, "tiebreak") + attribute(0x0025, "");
  stun_transaction transaction{};
  stun_buffer answer{};
  const size_t size = write_binding_error(answer, transaction, 401, "no", nullptr, kPassword);
  return {message_of(check),
          message_of(check + attribute(0x0008, std::string(20, 'i')) +
                     attribute(0x001c, std::string(32, 'i'))),
          message_of(attribute(0x7001, "") + attribute(0x7002, "a") + attribute(0x7003, "") +
                     attribute(0x7004, "") + attribute(0x7005, "")),
          std::string(answer.begin(), answer.begin() + static_cast<long>(size))};
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Of its own, so that a read past the end is one past the memory.
  zelta::fuzz::take(std::vector<uint8_t>(data, data + size));
  return 0;
}
