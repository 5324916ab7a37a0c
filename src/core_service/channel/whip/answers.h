// SPDX-License-Identifier: Apache-2.0
// What is answered by HTTP to whoever publishes by WHIP (RFC 9725).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core_service/channel/whip/publishers.h"

namespace zelta::core_service {

constexpr const char* kOfferType = "application/sdp";
constexpr const char* kFragmentType = "application/trickle-ice-sdpfrag";
// Behind a session's path: what lasts as long as the session.
constexpr const char* kEventsPart = "events";
constexpr const char* kEventsType = "text/event-stream";

struct http_answer {
  int status;
  std::string content_type;
  std::string body;
  std::vector<std::pair<const char*, std::string>> headers;
  // The session with whose end it ends; empty: it is all there.
  std::string lasts_with{};
};

// One line of plain text.
http_answer in_words(int status, const std::string& why);

// What the publishers are asked.
struct whip_question {
  enum { kPublish, kPatch, kEnd, kWatch } what;
  std::string user;
  std::string path;      // of the user, as it stands in a URL
  std::string session;   // but of kPublish
  std::string if_match;  // of kPatch
  std::string body;
};

// On the loop's thread. Doesn't come back before the publishers have decided.
http_answer answer_of(publishers& asked, const whip_question& question);

}  // namespace zelta::core_service
