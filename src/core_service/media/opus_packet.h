// SPDX-License-Identifier: Apache-2.0
// What a packet of Opus says of itself in its first bytes (RFC 6716, section 3), and packets that
// decode to silence. Nothing here decodes.
//
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "core_service/media/shared_bytes.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

constexpr int kOpusRate = 48'000;
// The shortest frame. Every duration is a whole number of such steps.
constexpr media_time kOpusStep = std::chrono::microseconds(2500);
constexpr int kOpusStepSamples = 120;

enum class opus_mode : uint8_t { kSilk, kHybrid, kCelt };
// Of what is heard: up to 4, 6, 8, 12 and 20 kHz.
enum class opus_bandwidth : uint8_t { kNarrow, kMedium, kWide, kSuperWide, kFull };

struct opus_packet {
  opus_mode mode = opus_mode::kCelt;
  opus_bandwidth bandwidth = opus_bandwidth::kFull;
  bool stereo = false;
  int frames = 1;
  int steps_a_frame = 8;

  int samples() const { return frames * steps_a_frame * kOpusStepSamples; }  // at 48 kHz
  media_time duration() const { return frames * steps_a_frame * kOpusStep; }
};

// None: the bytes break one of the rules R1 to R7 of section 3.4, so no decoder takes them.
std::optional<opus_packet> read_opus_packet(const uint8_t* bytes, size_t size);

struct opus_silence {
  shared_bytes bytes;
  media_time duration;
};
// The longest packet of one frame that decodes to silence and has at most `steps` steps, of which
// there is at least one. It has the channels of `like`, and its bandwidth, or the next one up that
// CELT has: the sound fades out over 2.5 ms when it comes from CELT, and over 5 ms after SILK.
opus_silence silence_like(const opus_packet& like, int64_t steps);

}  // namespace zelta::core_service::media
