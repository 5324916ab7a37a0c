// SPDX-License-Identifier: Apache-2.0
// A user who sends RTP as a session description says.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/media_feed.h"
#include "core_service/rtp/packet_plane.h"
#include "core_service/rtp/settings.h"

namespace zelta::core_service::rtp {

struct rtp_source {
  std::shared_ptr<media::media_feed> feed;
  // The description with the ports that were chosen here; empty: it names them all.
  std::string answer;
};

// `left_out` as of parse_description. The sender that the session description in `text` describes.
// None, with `error`, when nothing can be received of it.
std::optional<rtp_source> make_rtp_source(uint32_t uid, const std::string& text,
                                          const settings& how,
                                          const std::shared_ptr<packet_plane>& plane,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error);

}  // namespace zelta::core_service::rtp
