// SPDX-License-Identifier: Apache-2.0
// What a session description says of a sender: which streams, how coded, at which ports.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/codecs.h"
#include "core_service/media/gst.h"

namespace zelta::core_service::rtp {

struct stream_description {
  media::media_kind kind;
  std::string address;  // where it is sent to
  int port = 0;         // 0: to be chosen here, and answered
  int rtcp_port = 0;
  bool rtcp_mux = false;
  bool srtp = false;  // it says that it is encrypted
  // Number of the header extension that says how loud its sound is; 0: none does.
  int level_extension = 0;
  // By payload type, those that can be received.
  std::map<int, media::caps_ptr> caps;
};

// The streams of the description in `text`, in its order; those that are turned off or of no codec
// that can be received are left out and told, without a medium where none is lost: those that are
// turned off or no sound or picture. Empty, with `error`, when none is left.
std::vector<stream_description> parse_description(const std::string& text,
                                                  std::vector<missing_medium>& left_out,
                                                  std::string& error);

// `text` with the ports of its media lines replaced: the answer to one who leaves them open.
std::string answer_with_ports(const std::string& text, const std::vector<int>& ports);

}  // namespace zelta::core_service::rtp
