// SPDX-License-Identifier: Apache-2.0
// Which of the lines that share a transport a packet is of (RFC 8843, section 9.2), and what a
// repeated one repeats (RFC 4588). One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core_service/rtp/packet.h"
#include "core_service/webrtc/offer.h"

namespace zelta::core_service::webrtc {

class bundle {
 public:
  struct place {
    size_t line;
    // What the packet is, or repeats.
    uint32_t ssrc;
    uint8_t payload_type;
    bool repeats;
  };

  // The lines, of which a place tells the number; copied.
  explicit bundle(const std::vector<offered_line>& lines) : lines_(lines) {}

  // None for what isn't received, or can't be told yet, and of new sources once there are too many.
  // What a packet's header extensions say is believed, and remembered once the packet has been
  // found to be the sender's.
  std::optional<place> find(const rtp::packet& one) const;
  void remember(const rtp::packet& one, const place& where);

 private:
  struct source {
    size_t line = 0;
    std::string rid;
    bool repeats = false;
    uint64_t born = 0;  // later than those with less
  };

  std::optional<size_t> line_of(const rtp::packet& one) const;
  std::optional<uint32_t> original_of(const rtp::packet& one, size_t line) const;
  const source* find_source(uint32_t ssrc) const;

  const std::vector<offered_line> lines_;
  std::unordered_map<uint32_t, source> sources_;
  uint64_t last_born_ = 0;
};

}  // namespace zelta::core_service::webrtc
