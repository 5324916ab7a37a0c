// SPDX-License-Identifier: Apache-2.0
// What a session description says of one payload type.
#pragma once

#include <cstdint>

#include "core_service/media/codecs.h"
#include "core_service/media/format_tracker.h"

namespace zelta::core_service::rtp {

struct payload {
  const media::codec* kind = nullptr;
  uint32_t clock_rate = 90'000;  // of its timestamps, Hz
  media::described_format described;
  int level_extension = 0;  // as in stream_description
  bool sent_again = false;  // packets that are lost may be asked for (RFC 4585, section 6.2.1)
};

// Of the caps that a description's line has become.
payload payload_of(const GstCaps* caps);

}  // namespace zelta::core_service::rtp
