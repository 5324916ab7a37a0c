// SPDX-License-Identifier: Apache-2.0
// What a user who publishes offers, and reads in the answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::test {

// Numbers of header extensions in all offers (RFC 8285).
constexpr int kLevelExtension = 1;
constexpr int kTransportExtension = 3;
constexpr int kMidExtension = 4;

// A media line with its one source; the line's mid is its place among them.
struct webrtc_source {
  std::string media;   // "audio", "video"
  std::string coding;  // "H264/90000"
  std::string format;  // of a=fmtp; may be empty
  uint8_t payload_type = 0;
  uint8_t again_type = 0;  // of RTX (RFC 4588); 0: nothing is sent again
  uint32_t ssrc = 0;
  uint32_t again_ssrc = 0;
};

struct ice_names {
  std::string ufrag;
  std::string password;
};

// `by_ssrc`: the lines' sources are told beforehand, in place of the mid in each packet.
std::string write_offer(const std::vector<webrtc_source>& sources, const ice_names& own,
                        const std::string& fingerprint, bool by_ssrc);

struct read_answer {
  ice_names theirs;
  std::string fingerprint;  // of sha-256
  std::string address;      // of the first candidate of IPv4
  uint16_t port = 0;
};
// None with `error` when something is missing.
std::optional<read_answer> read_answer_of(const std::string& text, std::string& error);

}  // namespace zelta::test
