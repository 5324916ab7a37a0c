// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/picture_depayloader.h"

#include <utility>

namespace zelta::core_service::rtp {

void picture_depayloader::push(const packet& one, bool lost) {
  if (lost) {
    if (open_) on_loss();
    damage();
  }
  // Padding alone, which senders use to probe the bandwidth between pictures.
  if (one.payload_bytes == 0) return;
  if (open_ && one.timestamp != timestamp_) {
    end();
    // Which of the two units misses something can't be known.
    if (lost) damage();
  }
  open_ = true;
  timestamp_ = one.timestamp;
  if (!discarded_) add({one.payload, one.payload_bytes}, lost);
  if (one.marker) end();
}

void picture_depayloader::finish() {
  if (!open_) return;
  on_finish();
  end();
}

void picture_depayloader::discard() {
  discarded_ = true;
  damage();
  // Memory of a huge unit doesn't wait here for small ones.
  unit_.take();
}

bool picture_depayloader::append(const uint8_t* bytes, size_t count) {
  if (count > kMostBytes - size()) {
    discard();
    return false;
  }
  unit_.append(bytes, count);
  return true;
}

void picture_depayloader::end() {
  close();
  const bool out = !discarded_ && size() > 0;
  const bool key = std::exchange(key_, false);
  open_ = false;
  discarded_ = false;
  if (!out) {
    unit_.clear();
    return;
  }
  to_({unit_.take(), timestamp_, key, std::exchange(damaged_, false)});
}

}  // namespace zelta::core_service::rtp
