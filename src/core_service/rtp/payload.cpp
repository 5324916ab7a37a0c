// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/payload.h"

#include <cstdlib>

namespace zelta::core_service::rtp {

payload payload_of(const GstCaps* caps) {
  const GstStructure* const fields = gst_caps_get_structure(caps, 0);
  const auto text = [fields](const char* name) {
    const char* const value = gst_structure_get_string(fields, name);
    return std::string(value != nullptr ? value : "");
  };
  payload one;
  one.kind = media::find_rtp_codec(text("encoding-name"));
  int rate = 0;
  if (gst_structure_get_int(fields, "clock-rate", &rate) != FALSE && rate > 0) {
    one.clock_rate = static_cast<uint32_t>(rate);
  }
  for (const char* const sets : {"sprop-parameter-sets", "sprop-vps", "sprop-sps", "sprop-pps"}) {
    const std::string value = text(sets);
    if (!value.empty()) one.described.parameter_sets.push_back(value);
  }
  if (one.kind == nullptr || one.kind->kind != media::media_kind::kAudio) return one;
  one.described.sample_rate = rate;
  one.described.channels = std::atoi(text("encoding-params").c_str());
  return one;
}

}  // namespace zelta::core_service::rtp
