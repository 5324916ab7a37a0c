// SPDX-License-Identifier: Apache-2.0
// Session descriptions (RFC 8866) as GStreamer reads them, and what every reader of ours looks for
// in a media line. Any thread, once GStreamer is set up.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gst/sdp/gstsdpmessage.h>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/codecs.h"
#include "core_service/media/gst.h"

namespace zelta::core_service::rtp {

struct sdp_free {
  void operator()(GstSDPMessage* message) const { gst_sdp_message_free(message); }
};
using sdp_ptr = std::unique_ptr<GstSDPMessage, sdp_free>;

// Null, with `error`, for what is no UTF-8 or longer than 64 KiB. What lines say isn't checked.
sdp_ptr parse_sdp(const std::string& text, std::string& error);

// The values of all attributes of this name, in their order, "" where there is none. They live as
// long as the description.
std::vector<const char*> values_of(const GstSDPMedia* media, const char* name);
std::vector<const char*> values_of(const GstSDPMessage* message, const char* name);

// The numbers of the line's formats that are RTP payload types, each once, in its order.
std::vector<int> payload_types_of(const GstSDPMedia* media);

// By payload type, those of a codec of this kind that can be received.
std::map<int, media::caps_ptr> receivable_payloads(const GstSDPMedia* media,
                                                   media::media_kind kind);

// What is lost with a line, called `line` in the reason, that has none of them.
missing_medium without_codec(const GstSDPMedia* media, const std::string& line);

// How a sender offers a header extension (RFC 8285, section 5).
struct offered_extension {
  int number = 0;          // 1 to 255; 0: it isn't offered, or isn't sent
  bool sent_only = false;  // said so, and so has to be answered
};
offered_extension find_extension(const GstSDPMedia* media, const std::string& uri);

}  // namespace zelta::core_service::rtp
