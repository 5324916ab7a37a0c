// SPDX-License-Identifier: Apache-2.0
// The few lines that a publisher sends after its offer: candidates as it finds them, or the wish to
// restart ICE (application/trickle-ice-sdpfrag, RFC 8840, section 9; RFC 9725, section 4.3).
#pragma once

#include <optional>
#include <string>

#include "core_service/webrtc/answer.h"
#include "core_service/webrtc/offer.h"

namespace zelta::core_service::webrtc {

struct ice_fragment {
  std::string ufrag;
  std::string password;
  bool has_candidates = false;
  bool end = false;  // there are no more of them
};

// None, with `error` in words, for what has no credentials, two different ones, or lines that are
// none of a description. Candidates aren't looked at: who is ICE-lite answers, and never asks. Any
// thread.
std::optional<ice_fragment> parse_fragment(const std::string& text, std::string& error);

// Answers a restart of the session that began with `to`. Any thread.
std::string make_fragment(const answer_terms& terms, const offer& to);

// What is wrong with the lengths of these (RFC 8839, section 5.4); empty: nothing.
std::string fault_of_credentials(const std::string& ufrag, const std::string& password);

}  // namespace zelta::core_service::webrtc
