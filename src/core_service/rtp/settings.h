// SPDX-License-Identifier: Apache-2.0
// How RTP is received.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core_service/media/timeline.h"

namespace zelta::core_service::rtp {

enum class cipher { kAes128CmSha1_80, kAes128Gcm, kAes256Gcm };

struct srtp_key {
  cipher mode;
  std::vector<uint8_t> key_and_salt;
};

struct settings {
  // How long a packet that is missing is waited for.
  media::media_time jitter_latency{};
  // What sockets that no sender has named are opened at; 0: no bound on that side.
  int min_port = 0;
  int max_port = 0;
  // Take times from the senders' reports, or from arrival alone.
  bool use_sender_reports = true;
  std::optional<srtp_key> key;
  // Of a picture that comes at several sizes, the smallest is taken, not the largest.
  bool smallest_layer = false;
};

// The key that "--encrypt_mode" and "--encrypt_secret" give. Empty with `error` when they don't.
std::optional<srtp_key> parse_key(const std::string& mode, const std::string& secret,
                                  std::string& error);

}  // namespace zelta::core_service::rtp
