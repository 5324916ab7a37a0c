// SPDX-License-Identifier: Apache-2.0
#include "words.h"

namespace zelta::record {

const words kLogLevels{{"fatal", 1},  {"error", 2}, {"warn", 3},
                       {"notice", 4}, {"info", 5},  {"debug", 6}};
const words kMixedVideoAudio{{"apart", 0}, {"baseline", 1}, {"high", 2}};
const words kDecodeVideo{{"file", 0}, {"h264", 1},     {"yuv", 2},
                         {"jpg", 3},  {"jpg-file", 4}, {"jpg-and-file", 5}};
const words kDecodeAudio{{"file", 0}, {"aac", 1}, {"pcm", 2}, {"mixed-pcm", 3}};
const words kChannelProfiles{{"communication", 0}, {"live", 1}};
const words kStreamTypes{{"high", 0}, {"low", 1}};
const words kTriggerModes{{"automatic", 0}, {"manual", 1}};
const words kLanguages{{"cpp", 0}, {"java", 1}};
const words kAudioProfiles{{"default", 0}, {"high", 1}, {"stereo", 2}};
const words kRenderModes{{"fill", 0}, {"fit", 1}};

std::optional<int> number_of(const words& table, const std::string& text) {
  for (const word& w : table) {
    if (text == w.name || text == std::to_string(w.number)) return w.number;
  }
  return std::nullopt;
}

std::string choices(const words& table) {
  std::string text;
  for (size_t i = 0; i < table.size(); ++i) {
    if (i > 0) text += i + 1 == table.size() ? " or " : ", ";
    text += std::string(table[i].name) + " (" + std::to_string(table[i].number) + ")";
  }
  return text;
}

}  // namespace zelta::record
