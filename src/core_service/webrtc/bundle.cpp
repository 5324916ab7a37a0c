// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/bundle.h"

#include <algorithm>
#include <string_view>

namespace zelta::core_service::webrtc {
namespace {

// A foreign sender may invent sources.
constexpr size_t kMostSources = 64;

}  // namespace

std::optional<bundle::place> bundle::find(const rtp::packet& one) const {
  const auto known = sources_.find(one.ssrc);
  const auto line = known != sources_.end() ? known->second.line : line_of(one);
  if (!line) return std::nullopt;
  const offered_line& at = lines_[*line];
  if (at.payloads.count(one.payload_type) != 0) {
    return place{*line, one.ssrc, one.payload_type, false};
  }
  const auto repeated = at.retransmissions.find(one.payload_type);
  if (repeated == at.retransmissions.end()) return std::nullopt;
  const auto original = known != sources_.end() ? known->second.original : original_of(one, *line);
  if (!original) return std::nullopt;
  return place{*line, *original, static_cast<uint8_t>(repeated->second), true};
}

void bundle::remember(const rtp::packet& one, const place& where) {
  if (sources_.size() >= kMostSources || sources_.count(one.ssrc) != 0) return;
  source& made = sources_[one.ssrc];
  made.line = where.line;
  if (where.repeats) made.original = where.ssrc;
  const offered_line& at = lines_[where.line];
  if (!where.repeats) made.rid = rtp::text_extension_of(one, at.rid_extension);
}

std::optional<size_t> bundle::line_of(const rtp::packet& one) const {
  std::optional<size_t> by_type;
  bool several = false;
  for (size_t i = 0; i < lines_.size(); ++i) {
    const offered_line& at = lines_[i];
    if (at.mid_extension != 0 && rtp::text_extension_of(one, at.mid_extension) == at.mid) return i;
    const bool told = std::find(at.sources.begin(), at.sources.end(), one.ssrc) != at.sources.end();
    if (told || at.repeats.count(one.ssrc) != 0) return i;
    if (at.payloads.count(one.payload_type) == 0 && at.retransmissions.count(one.payload_type) == 0)
      continue;
    several = by_type.has_value();
    by_type = i;
  }
  return several ? std::nullopt : by_type;
}

std::optional<uint32_t> bundle::original_of(const rtp::packet& one, size_t line) const {
  const offered_line& at = lines_[line];
  const auto told = at.repeats.find(one.ssrc);
  if (told != at.repeats.end()) return told->second;
  const std::string_view rid = rtp::text_extension_of(one, at.repaired_rid_extension);
  std::optional<uint32_t> found;
  for (const auto& [ssrc, known] : sources_) {
    if (known.line != line || known.original) continue;
    if (!rid.empty() && known.rid != rid) continue;
    // Without a word of which it may be of several.
    if (found) return std::nullopt;
    found = ssrc;
  }
  return found;
}

}  // namespace zelta::core_service::webrtc
