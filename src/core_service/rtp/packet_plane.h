// SPDX-License-Identifier: Apache-2.0
// What all who send packets share. On the loop's thread.
#pragma once

#include <algorithm>

#include "core_service/media/shared_bytes.h"
#include "core_service/rtp/packet_thread.h"
#include "core_service/rtp/unit_mailbox.h"

namespace zelta::core_service::rtp {

struct packet_plane {
  explicit packet_plane(base::event_loop& loop)
      : mail(loop), thread([this] { return mail.is_full(); }) {}
  // How long what came has waited before it was taken in hand, the longest since the last call.
  media::media_time take_behind() { return std::max(thread.take_behind(), mail.take_behind()); }

  unit_mailbox mail;
  int likely_free_port = 0;
  // Behind the thread, whose receivers use it.
  media::byte_pool pool;
  packet_thread thread;
};

}  // namespace zelta::core_service::rtp
