// SPDX-License-Identifier: Apache-2.0
// One media line of an offer: what its sender sends, and what of it is received here.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core_service/folder/missing_medium.h"
#include "core_service/media/codecs.h"
#include "core_service/rtp/payload.h"
#include "core_service/rtp/sdp_media.h"

namespace zelta::core_service::webrtc {

// What the offer says of a payload type, to be said again in the answer.
struct codec_lines {
  std::string rtpmap;                 // "H264/90000"; "": it is one that needs no such line
  std::string fmtp;                   // "": there is none
  std::vector<std::string> feedback;  // of what we may send: "nack", "nack pli", …
};

struct offered_line {
  std::string mid;
  std::string media;     // "audio", "video", "application"
  std::string protocol;  // as written, as are
  std::vector<std::string> formats;
  // Is received: RTP/SAVPF over DTLS, sendrecv or sendonly, and of a codec of ours, or SCTP over
  // DTLS. Of one that isn't, nothing from here on counts.
  bool accepted = false;
  media::media_kind kind = media::media_kind::kAudio;

  std::map<int, rtp::payload> payloads;  // those that can be received
  std::vector<int> preferred;            // their numbers, those that we would rather have first
  std::map<int, codec_lines> codecs;     // of these and of `retransmissions`
  // What is sent again (RTX, RFC 4588): its payload type, to that of what it repeats.
  std::map<int, int> retransmissions;
  // The same by SSRC, where the offer says so (ssrc-group:FID, RFC 5576, section 4.2).
  std::map<uint32_t, uint32_t> repeats;
  // Those of a=ssrc in order of their first mention, without what repeats or protects others. None
  // is named by senders that tell streams apart by mid and rid.
  std::vector<uint32_t> sources;
  // Layers of simulcast that it sends, in its order, those that pause at first too (RFC 8853).
  std::vector<std::string> rids;

  // Numbers of header extensions that it sends (RFC 8285); 0: it doesn't.
  int level_extension = 0;         // RFC 6464
  int mid_extension = 0;           // RFC 9143, section 15
  int rid_extension = 0;           // RFC 8852
  int repaired_rid_extension = 0;  // RFC 8852
  int transport_cc_extension = 0;
  std::vector<std::string> extmaps;  // as they are answered

  // Which feedback is agreed upon for any payload type: for losses; by packets' numbers, of the
  // whole transport.
  bool nack = false;
  bool transport_cc = false;

  // Of one that carries data channels in place of media: the sender's port of SCTP (RFC 8841).
  std::optional<uint16_t> sctp_port;

  bool rtcp_mux = false;
  bool rtcp_rsize = false;  // RFC 5506
  // Has no transport of its own, and so counts without a port (RFC 9143, section 6).
  bool bundle_only = false;

  bool is_media() const { return accepted && !sctp_port; }
};

// The line in words, for errors.
std::string name_of(const offered_line& line);

// None, with `error`, when the line breaks a rule that leaves no answer. A line that isn't received
// is told in `left_out`, without a medium where none is lost.
std::optional<offered_line> parse_line(const GstSDPMessage* message, const GstSDPMedia* media,
                                       std::vector<missing_medium>& left_out, std::string& error);

}  // namespace zelta::core_service::webrtc
