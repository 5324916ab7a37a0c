// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <memory>

#include <glib.h>

#include "core_service/rtp/settings.h"

namespace zelta::core_service::rtp {
namespace {

struct mode_row {
  const char* name;
  cipher mode;
  size_t key_bytes;
  size_t salt_bytes;
};
constexpr mode_row kModes[] = {
    {"aes-128-cm-sha1-80", cipher::kAes128CmSha1_80, 16, 14},
    {"aes-128-gcm", cipher::kAes128Gcm, 16, 12},
    {"aes-256-gcm", cipher::kAes256Gcm, 32, 12},
};

// Empty when `text` is no base64. GLib's decoder passes over what doesn't belong, which would make
// a key out of a typing error.
std::vector<uint8_t> decode_base64(const std::string& text) {
  const bool clean =
      text.size() % 4 == 0 &&
      text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
          std::string::npos;
  if (!clean || text.empty()) return {};
  gsize size = 0;
  const std::unique_ptr<guchar, void (*)(void*)> bytes(g_base64_decode(text.c_str(), &size),
                                                       g_free);
  return {bytes.get(), bytes.get() + size};
}

}  // namespace

std::optional<srtp_key> parse_key(const std::string& mode, const std::string& secret,
                                  std::string& error) {
  for (const mode_row& row : kModes) {
    if (mode != row.name) continue;
    srtp_key key{row.mode, decode_base64(secret)};
    if (key.key_and_salt.size() == row.key_bytes + row.salt_bytes) return key;
    error = "--encrypt_secret should be the base64 text of " + std::to_string(row.key_bytes) +
            " bytes of key and " + std::to_string(row.salt_bytes) + " of salt for " + mode +
            (key.key_and_salt.empty() ? "; it is no base64"
                                      : "; it has " + std::to_string(key.key_and_salt.size()));
    return std::nullopt;
  }
  error =
      "--encrypt_mode \"" + mode + "\" should be aes-128-cm-sha1-80, aes-128-gcm or aes-256-gcm";
  return std::nullopt;
}

}  // namespace zelta::core_service::rtp
