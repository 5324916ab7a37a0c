// SPDX-License-Identifier: Apache-2.0
// What a publisher offers (RFC 9429), read by one who only receives: always the answerer, ICE-lite,
// DTLS server, everything on one transport (RFC 9143) with RTCP in it (RFC 5761).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core_service/webrtc/offered_line.h"

namespace zelta::core_service::webrtc {

struct offer {
  // Of the one transport that all lines share.
  std::string ufrag;
  std::string password;
  // The strongest that is offered of sha-512, sha-384 and sha-256; bytes in hexadecimal, capitals,
  // with colons between.
  std::string fingerprint_hash;
  std::string fingerprint;
  std::vector<std::string> bundle;  // mids that share a transport with the first that is accepted
  std::vector<offered_line> lines;  // at least one is of media, and accepted
};

// None, with `error` in words, for what can't be answered: no ICE credentials, no certificate, one
// that only waits to be connected to, media on several transports, nothing that is received. Lines
// that are no media, turned off or of no codec of ours are told in `left_out`, without a medium
// where none is lost; those were told when there is none. Any thread, once GStreamer is set up.
std::optional<offer> parse_offer(const std::string& text, std::vector<missing_medium>& left_out,
                                 std::string& error);

}  // namespace zelta::core_service::webrtc
