// SPDX-License-Identifier: Apache-2.0
// Learns from encoded units what must be known before them: sizes, and what a decoder is set up
// with. No pipeline, no thread, and, as long as nothing changes, no allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core_service/media/encoded_unit.h"

namespace zelta::core_service::media {

// How one codec tells its format.
class format_source {
 public:
  virtual ~format_source() = default;
  virtual format_ptr look(const uint8_t* unit, size_t bytes, bool key) = 0;
};

// What a session description says of a stream.
struct described_format {
  // Parameter sets in base64, those of one attribute separated by commas: sprop-parameter-sets of
  // H.264 (RFC 6184, 8.1); sprop-vps, sprop-sps, sprop-pps of HEVC (RFC 7798, 7.1).
  std::vector<std::string> parameter_sets;
  // Of sound; 0: as is usual for the codec.
  int sample_rate = 0;
  int channels = 0;
};

// One thread. The units are those of one stream, in decoding order, in the form of `encoded_unit`.
class format_tracker {
 public:
  // For H.264, HEVC, AV1, VP8, VP9, Opus, PCMU and PCMA; no other codec's format gets known.
  explicit format_tracker(const codec& kind, const described_format& described = {});
  format_tracker(format_tracker&&) noexcept;
  format_tracker& operator=(format_tracker&&) noexcept;
  ~format_tracker();

  // The format that holds for this unit: the same object as before when nothing changed, null while
  // it isn't known. A change takes effect with a key unit; one that can't be decoded, because its
  // parameter sets are missing, broken or of pictures larger than we take, makes it unknown again.
  format_ptr look(const uint8_t* unit, size_t bytes, bool key);

 private:
  std::unique_ptr<format_source> source_;
};

}  // namespace zelta::core_service::media
