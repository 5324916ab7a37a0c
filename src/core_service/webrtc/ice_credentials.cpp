// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/ice_credentials.h"

#include <array>

#include <openssl/err.h>
#include <openssl/rand.h>

namespace zelta::core_service::webrtc {
namespace {

constexpr size_t kUfragCharacters = 8;
constexpr size_t kPasswordCharacters = 24;

// ice-char (RFC 8839, section 5.4): 64 of them, so that six bits of a byte choose one without bias.
constexpr char kCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static_assert(sizeof kCharacters == 64 + 1);

}  // namespace

std::optional<ice_credentials> make_ice_credentials() {
  std::array<uint8_t, kUfragCharacters + kPasswordCharacters> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    ERR_clear_error();
    return std::nullopt;
  }
  std::string text;
  for (const uint8_t byte : bytes) text += kCharacters[byte & 63U];
  return ice_credentials{text.substr(0, kUfragCharacters), text.substr(kUfragCharacters)};
}

}  // namespace zelta::core_service::webrtc
