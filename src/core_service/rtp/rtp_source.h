// SPDX-License-Identifier: Apache-2.0
// A user who sends RTP.
//
//     UDP ─▶ [SRTP] ─▶ jitter buffer ─▶ depayload ─▶ pad        a pad an SSRC
//     UDP ◀▶ RTCP: sender reports in, key frame requests out
//
// Losses, reordering, doubled and foreign packets, clocks and lip sync are the RTP session's work.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core_service/media/gst.h"
#include "core_service/missing_medium.h"
#include "core_service/rtp/settings.h"

namespace zelta::core_service::rtp {

struct rtp_source {
  media::element_ptr bin;
  bool video = false;
  bool sound = false;
  // The description with the ports that were chosen here; empty: it names them all.
  std::string answer;
  // Says once that nothing that arrives can be decrypted. Any thread, while the bin lives.
  std::function<std::string()> fault;
};

// `left_out` as of parse_description. The sender that the session description in `text` describes.
// None, with `error`, when nothing can be received of it.
std::optional<rtp_source> make_rtp_source(const std::string& text, const settings& how,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error);

}  // namespace zelta::core_service::rtp
