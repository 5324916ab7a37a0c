// SPDX-License-Identifier: Apache-2.0
// What an MP4 file says of an AV1 stream before its first picture (AV1 Codec ISO Media File Format
// Binding, section 2.3).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelta::core_service::media::mp4 {

// The content of the box "av1C" for the stream whose first temporal unit, in OBUs with their sizes,
// is given. Demuxers' own word for it isn't taken: some cut it short. Empty when no sequence header
// is in it, or one that is broken.
std::vector<uint8_t> av1_config_of(const std::vector<uint8_t>& unit);

}  // namespace zelta::core_service::media::mp4
