// SPDX-License-Identifier: Apache-2.0
// A user who sends RTP:
//
//     packet thread: sender ─▶ units ─▶ mailbox ─▶ loop's thread        a track an SSRC
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/media_feed.h"
#include "core_service/media/shared_bytes.h"
#include "core_service/rtp/packet_thread.h"
#include "core_service/rtp/settings.h"
#include "core_service/rtp/unit_mailbox.h"

namespace zelta::core_service::rtp {

// What all senders share. On the loop's thread.
struct packet_plane {
  explicit packet_plane(base::event_loop& loop)
      : mail(loop), thread([this] { return mail.is_full(); }) {}
  // How long what came has waited before it was taken in hand, the longest since the last call.
  media::media_time take_behind();

  unit_mailbox mail;
  int likely_free_port = 0;
  // Behind the thread, whose receivers use it.
  media::byte_pool pool;
  packet_thread thread;
};

struct rtp_source {
  std::shared_ptr<media::media_feed> feed;
  // The description with the ports that were chosen here; empty: it names them all.
  std::string answer;
};

// `left_out` as of parse_description. The sender that the session description in `text` describes.
// None, with `error`, when nothing can be received of it.
std::optional<rtp_source> make_rtp_source(uint32_t uid, const std::string& text,
                                          const settings& how, std::shared_ptr<packet_plane> plane,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error);

}  // namespace zelta::core_service::rtp
