// SPDX-License-Identifier: Apache-2.0
// A lost packet of Opus, made of what the next one says of it (in-band FEC: RFC 6716, section
// 2.1.7). It can't be cut out of there, so what was decoded for it is encoded again; that is done
// only when something was lost.
#pragma once

#include <optional>

#include "core_service/media/opus_packet.h"
#include "core_service/media/shared_bytes.h"

namespace zelta::core_service::media {

struct repaired_opus {
  shared_bytes bytes;
  opus_packet about;
};

// What stood between `before`, the last packet that came, and `behind`: one frame as long as those
// of `behind`, directly before that. None: it says nothing of it. Any thread.
std::optional<repaired_opus> repair_opus(const shared_bytes& before, const shared_bytes& behind);

}  // namespace zelta::core_service::media
