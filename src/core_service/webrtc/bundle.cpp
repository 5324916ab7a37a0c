// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/bundle.h"

#include <algorithm>
#include <string_view>

namespace zelta::core_service::webrtc {
namespace {

// A foreign sender may invent sources, and ciphers keep a state of each for good.
constexpr size_t kMostSources = 128;

}  // namespace

const bundle::source* bundle::find_source(uint32_t ssrc) const {
  const auto known = sources_.find(ssrc);
  return known != sources_.end() ? &known->second : nullptr;
}

std::optional<bundle::place> bundle::find(const rtp::packet& one) const {
  const source* const known = find_source(one.ssrc);
  if (known == nullptr && sources_.size() >= kMostSources) return std::nullopt;
  const auto line = known != nullptr ? known->line : line_of(one);
  if (!line) return std::nullopt;
  const offered_line& at = lines_[*line];
  if (at.payloads.count(one.payload_type) != 0) {
    return place{*line, one.ssrc, one.payload_type, false};
  }
  const auto repeated = at.retransmissions.find(one.payload_type);
  if (repeated == at.retransmissions.end()) return std::nullopt;
  const auto original = original_of(one, *line);
  if (!original) return std::nullopt;
  return place{*line, *original, static_cast<uint8_t>(repeated->second), true};
}

void bundle::remember(const rtp::packet& one, const place& where) {
  if (sources_.count(one.ssrc) != 0) return;
  const offered_line& at = lines_[where.line];
  const int rid = where.repeats ? at.repaired_rid_extension : at.rid_extension;
  sources_[one.ssrc] = {where.line, std::string(rtp::text_extension_of(one, rid)), where.repeats,
                        ++last_born_};
}

std::optional<size_t> bundle::line_of(const rtp::packet& one) const {
  // What a packet says itself counts before all that can be guessed, and nothing else where it is
  // of no line that is received.
  for (size_t i = 0; i < lines_.size(); ++i) {
    const std::string_view mid = rtp::text_extension_of(one, lines_[i].mid_extension);
    if (!mid.empty() && mid == lines_[i].mid) return i;
    if (!mid.empty() && i + 1 == lines_.size()) return std::nullopt;
  }
  std::optional<size_t> by_type;
  bool several = false;
  for (size_t i = 0; i < lines_.size(); ++i) {
    const offered_line& at = lines_[i];
    const bool told = std::find(at.sources.begin(), at.sources.end(), one.ssrc) != at.sources.end();
    if (told || at.repeats.count(one.ssrc) != 0) return i;
    if (at.payloads.count(one.payload_type) == 0 && at.retransmissions.count(one.payload_type) == 0)
      continue;
    several = by_type.has_value();
    by_type = i;
  }
  return several ? std::nullopt : by_type;
}

// The newest that it may be: a source that has changed its SSRC is repeated by the new one.
std::optional<uint32_t> bundle::original_of(const rtp::packet& one, size_t line) const {
  const offered_line& at = lines_[line];
  const source* const known = find_source(one.ssrc);
  const std::string_view said = rtp::text_extension_of(one, at.repaired_rid_extension);
  const std::string_view rid = said.empty() && known != nullptr ? known->rid : said;
  const auto told = at.repeats.find(one.ssrc);
  const source* newest = nullptr;
  std::optional<uint32_t> found;
  for (const auto& [ssrc, other] : sources_) {
    if (other.line != line || other.repeats || other.rid != rid) continue;
    // Layers that have no names are told apart by the offer alone.
    if (told != at.repeats.end() && told->second == ssrc && at.sources.size() > 1) return ssrc;
    if (newest != nullptr && newest->born > other.born) continue;
    newest = &other;
    found = ssrc;
  }
  if (!found && told != at.repeats.end()) return told->second;
  return found;
}

}  // namespace zelta::core_service::webrtc
