// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/opus_packet.h"

#include <array>

namespace zelta::core_service::media {
namespace {

constexpr size_t kMostFrameBytes = 1275;  // R2
constexpr int kMostSteps = 48;            // R5: 120 ms

// Section 3.1, table 2: who shares a mode and a bandwidth differs in the size of frames.
struct config_row {
  int configs;
  opus_mode mode;
  opus_bandwidth bandwidth;
  std::array<int, 4> steps;
};
constexpr config_row kConfigs[] = {
    {4, opus_mode::kSilk, opus_bandwidth::kNarrow, {4, 8, 16, 24}},
    {4, opus_mode::kSilk, opus_bandwidth::kMedium, {4, 8, 16, 24}},
    {4, opus_mode::kSilk, opus_bandwidth::kWide, {4, 8, 16, 24}},
    {2, opus_mode::kHybrid, opus_bandwidth::kSuperWide, {4, 8, 0, 0}},
    {2, opus_mode::kHybrid, opus_bandwidth::kFull, {4, 8, 0, 0}},
    {4, opus_mode::kCelt, opus_bandwidth::kNarrow, {1, 2, 4, 8}},
    {4, opus_mode::kCelt, opus_bandwidth::kWide, {1, 2, 4, 8}},
    {4, opus_mode::kCelt, opus_bandwidth::kSuperWide, {1, 2, 4, 8}},
    {4, opus_mode::kCelt, opus_bandwidth::kFull, {1, 2, 4, 8}},
};

opus_packet packet_of_toc(uint8_t toc) {
  opus_packet packet;
  packet.stereo = (toc & 4U) != 0;
  int config = toc >> 3U;
  for (const config_row& row : kConfigs) {
    if (config < row.configs) {
      packet.mode = row.mode;
      packet.bandwidth = row.bandwidth;
      packet.steps_a_frame = row.steps.at(static_cast<size_t>(config));
      break;
    }
    config -= row.configs;
  }
  return packet;
}

// What has not been read of a packet.
struct remaining_bytes {
  const uint8_t* at;
  size_t size;

  std::optional<size_t> byte() {
    if (size == 0) return std::nullopt;
    --size;
    return *at++;
  }
  // Of a frame (section 3.2.1).
  std::optional<size_t> frame_size() {
    const auto first = byte();
    if (!first || *first < 252) return first;
    const auto second = byte();
    if (!second) return second;
    return *second * 4 + *first;
  }
  // Takes the padding's length, and the padding from the end (section 3.2.5).
  bool cut_padding() {
    size_t padding = 0;
    for (;;) {
      const auto next = byte();
      if (!next) return false;
      padding += *next == 255 ? 254 : *next;
      if (*next != 255) break;
    }
    if (padding > size) return false;
    size -= padding;
    return true;
  }
};

// R4, and R7: lengths stand before all frames but the last, which has the rest.
bool are_frames_of_any_size(remaining_bytes left, int lengths) {
  size_t sum = 0;
  for (int i = 0; i < lengths; ++i) {
    const auto bytes = left.frame_size();
    if (!bytes) return false;
    sum += *bytes;
  }
  return sum <= left.size && left.size - sum <= kMostFrameBytes;
}

// R3, and R6.
bool are_frames_of_one_size(size_t bytes, int frames) {
  const auto count = static_cast<size_t>(frames);
  return bytes % count == 0 && bytes / count <= kMostFrameBytes;
}

// Section 3.2.5: any number of frames.
bool read_code_3(remaining_bytes left, opus_packet& packet) {
  const auto about = left.byte();
  if (!about) return false;
  packet.frames = static_cast<int>(*about & 0x3fU);
  if (packet.frames == 0 || packet.frames * packet.steps_a_frame > kMostSteps) return false;
  if ((*about & 0x40U) != 0 && !left.cut_padding()) return false;
  if ((*about & 0x80U) != 0) return are_frames_of_any_size(left, packet.frames - 1);
  return are_frames_of_one_size(left.size, packet.frames);
}

}  // namespace

std::optional<opus_packet> read_opus_packet(const uint8_t* bytes, size_t size) {
  if (size == 0) return std::nullopt;  // R1
  opus_packet packet = packet_of_toc(*bytes);
  const unsigned code = *bytes & 3U;
  const remaining_bytes left{bytes + 1, size - 1};
  packet.frames = code == 0 ? 1 : 2;
  const bool valid = code == 3   ? read_code_3(left, packet)
                     : code == 2 ? are_frames_of_any_size(left, 1)
                                 : are_frames_of_one_size(left.size, packet.frames);
  if (!valid) return std::nullopt;
  return packet;
}

// Two bytes of a frame of CELT that begin with the flag for silence (section 4.3, table 56). A
// packet without frame bytes would be silence only in name: decoders take it for a loss and go on
// with what they guess, for some 100 ms at full level.
opus_silence silence_like(const opus_packet& like, int64_t steps) {
  constexpr size_t kBytes = 3;
  // By the TOC's bits below the first: those of the config, and the flag for stereo.
  using packets = std::array<std::array<uint8_t, kBytes>, 32>;
  static constexpr packets kSilence = [] {
    packets made{};
    for (unsigned i = 0; i < 32; ++i) {
      made[i] = {static_cast<uint8_t>(0x80U | i << 2U), 0xff, 0xfe};
    }
    return made;
  }();
  const unsigned band = like.bandwidth == opus_bandwidth::kNarrow      ? 0
                        : like.bandwidth <= opus_bandwidth::kWide      ? 1
                        : like.bandwidth == opus_bandwidth::kSuperWide ? 2
                                                                       : 3;
  const unsigned size = steps >= 8 ? 3 : steps >= 4 ? 2 : steps >= 2 ? 1 : 0;
  const auto& packet = kSilence.at((band << 3U) | (size << 1U) | (like.stereo ? 1U : 0U));
  return {shared_bytes(nullptr, packet.data(), kBytes), kOpusStep * (1U << size)};
}

}  // namespace zelta::core_service::media
