// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/sound.h"

namespace zelta::core_service::rtp {

void sound_depayloader::push(const packet& one, bool lost) {
  damaged_ = damaged_ || lost;
  if (one.payload_bytes == 0) return;
  unit_.append(one.payload, one.payload_bytes);
  to_({unit_.take(), one.timestamp, true, std::exchange(damaged_, false)});
}

}  // namespace zelta::core_service::rtp
