// SPDX-License-Identifier: Apache-2.0
// What differs between H.264 and HEVC for one who looks for parameter sets: which NAL units they
// are, what stands in them, and the box that holds them in a file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <vector>

namespace zelta::core_service::media {

enum class nal_role { kOther, kSlice, kVps, kSps, kPps };

// What an SPS says, as far as a format needs it.
struct sequence_facts {
  int width = 0;  // as it is shown
  int height = 0;
  int aspect_across = 1;
  int aspect_down = 1;
  int reordered = 0;
  uint8_t chroma_format = 1;
  uint8_t luma_bits_above_8 = 0;
  uint8_t chroma_bits_above_8 = 0;
  // Of HEVC.
  std::array<uint8_t, 12> profile_tier_level{};
  uint8_t layers = 1;
  bool nested = false;
  uint16_t spatial_segmentation = 0;
};

// In lowest terms, as caps have it; what has a zero in it is unknown, and so taken as square.
inline void set_aspect(uint32_t across, uint32_t down, sequence_facts& out) {
  if (across == 0 || down == 0 || across > UINT16_MAX || down > UINT16_MAX) return;
  const uint32_t common = std::gcd(across, down);
  out.aspect_across = static_cast<int>(across / common);
  out.aspect_down = static_cast<int>(down / common);
}

// What of the coded picture isn't shown, in samples of chroma.
struct cropping {
  int64_t across = 0;
  int64_t down = 0;
};

// The size that is shown. `chroma`: ChromaArrayType, which both standards number alike; `fields`:
// how many a picture has that crops by rows of each. One that can't be a picture's sets nothing.
void set_size(int64_t width, int64_t height, const cropping& cut, unsigned chroma, int64_t fields,
              sequence_facts& out);

struct parameter_set {
  nal_role role = nal_role::kOther;
  uint32_t id = 0;
  uint32_t refers_to = 0;  // a PPS to an SPS, an SPS of HEVC to a VPS
  bool usable = false;     // else what refers to it has no format
  sequence_facts facts;    // of an SPS
  std::vector<uint8_t> nal;
};

using take_nal = std::function<void(const uint8_t* nal, size_t bytes)>;

struct nal_rules {
  bool has_vps;
  // `bytes` is never 0.
  nal_role (*role)(const uint8_t* nal, size_t bytes);
  // Everything but `role` and `nal`. False when not even the id can be read.
  bool (*read_set)(nal_role role, const uint8_t* nal, size_t bytes, parameter_set& out);
  // The id of the PPS that a slice is decoded with.
  std::optional<uint32_t> (*pps_of)(const uint8_t* slice, size_t bytes);
  // The box's content of `sets`, in order of their ids, for pictures of the SPS `active`.
  std::vector<uint8_t> (*config)(const std::vector<const parameter_set*>& sets,
                                 const parameter_set& active);
  // Every parameter set of the box. False when it is cut short.
  bool (*read_config)(const std::vector<uint8_t>& config, const take_nal& take);
};

extern const nal_rules kH264Rules;
extern const nal_rules kHevcRules;

// `count` NAL units, each behind its length in two bytes, at `at`, which is moved behind them.
bool read_sets(const std::vector<uint8_t>& config, size_t& at, size_t count, const take_nal& take);
// Those of the role, each behind its length; how many they are.
uint8_t put_sets(std::vector<uint8_t>& config, const std::vector<const parameter_set*>& sets,
                 nal_role role);

}  // namespace zelta::core_service::media
