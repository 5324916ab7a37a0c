// SPDX-License-Identifier: Apache-2.0
// What a publisher is answered (RFC 9429, section 5.3): what is received, how, and where to send
// it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core_service/webrtc/offer.h"

namespace zelta::core_service::webrtc {

struct answer_terms {
  struct place {
    std::string address;  // IPv4 or IPv6, in digits
    int port = 0;
  };

  std::string ufrag;
  std::string password;
  std::string fingerprint;        // sha-256 of our certificate, written as in `offer`
  std::vector<place> candidates;  // the one that we would rather be reached at first
  uint64_t session_id = 0;
  unsigned version = 0;  // one more for each answer of a session
};

// A description with a line for each of the offer's, in its order; those that aren't received are
// turned off. `to` is of parse_offer(). Any thread.
std::string make_answer(const offer& to, const answer_terms& terms);

// a=candidate of each place, host candidates over UDP (RFC 8839, section 5.1), and that there are
// no more.
std::string candidate_lines(const answer_terms& terms);

}  // namespace zelta::core_service::webrtc
