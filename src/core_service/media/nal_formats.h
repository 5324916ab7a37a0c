// SPDX-License-Identifier: Apache-2.0
// The parameter sets of a stream of H.264 or HEVC, and the format they make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core_service/media/encoded_unit.h"
#include "core_service/media/nal_rules.h"

namespace zelta::core_service::media {

// One thread.
class nal_formats {
 public:
  nal_formats(const codec& kind, const nal_rules& rules) : kind_(kind), rules_(rules) {}

  // One NAL unit; what is no parameter set is passed over, and so is what is known already.
  void add(const uint8_t* nal, size_t bytes);
  // The format of an access unit in NAL units behind their lengths. New sets take effect with a key
  // unit, because no other may begin a file.
  format_ptr look(const uint8_t* unit, size_t bytes, bool key);

 private:
  struct slice {
    const uint8_t* nal = nullptr;
    size_t bytes = 0;
  };
  const parameter_set* find(nal_role role, uint32_t id) const;
  const parameter_set* active_sps(uint32_t pps) const;
  void activate(const slice& first);
  format_ptr format_with(const parameter_set& sps) const;

  const codec& kind_;
  const nal_rules& rules_;
  std::vector<parameter_set> sets_;  // in order of role and id
  bool changed_ = false;             // since the last look that chose among them
  uint32_t active_ = 0;              // id of the SPS of `format_`
  format_ptr format_;
};

// How many pictures may be decoded before the one that is shown first, by the sets of a box.
int reordered_by(const nal_rules& rules, const std::vector<uint8_t>& config);

}  // namespace zelta::core_service::media
