// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/speaker_policy.h"

#include <algorithm>

namespace zelta::core_service {
namespace {

// Below it, nobody speaks.
constexpr uint32_t kSpeakingVolume = 10;
// Two who are as loud as each other don't take turns.
constexpr uint32_t kSpeakerLead = 8;

}  // namespace

std::optional<uint32_t> speaker_policy::listen(const std::vector<uint32_t>& uids,
                                               const std::vector<uint32_t>& volumes) {
  const auto loudest = std::max_element(volumes.begin(), volumes.end());
  const uint32_t speaker = uids[static_cast<size_t>(loudest - volumes.begin())];
  const auto active = std::find(uids.begin(), uids.end(), active_);
  const uint32_t held = active != uids.end()
                            ? volumes[static_cast<size_t>(active - uids.begin())] + kSpeakerLead
                            : kSpeakingVolume;
  if (*loudest < std::max(kSpeakingVolume, held) || speaker == active_) return std::nullopt;
  active_ = speaker;
  return speaker;
}

}  // namespace zelta::core_service
