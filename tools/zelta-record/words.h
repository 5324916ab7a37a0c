// SPDX-License-Identifier: Apache-2.0
// The values of enumerations by word. Their numbers are taken as well.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zelta::record {

struct word {
  const char* name;
  int number;
};
using words = std::vector<word>;

extern const words kLogLevels;
extern const words kMixedVideoAudio;
extern const words kDecodeVideo;
extern const words kDecodeAudio;
extern const words kChannelProfiles;
extern const words kStreamTypes;
extern const words kTriggerModes;
extern const words kLanguages;
extern const words kAudioProfiles;
extern const words kRenderModes;

// None when `text` is neither a name nor a number of the table.
std::optional<int> number_of(const words& table, const std::string& text);
// "automatic (0) or manual (1)".
std::string choices(const words& table);

}  // namespace zelta::record
