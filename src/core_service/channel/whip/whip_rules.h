// SPDX-License-Identifier: Apache-2.0
// What may be asked of the WHIP end (RFC 9725), and what is answered to everything else.
//
//     /CHANNEL                      the page: GET
//     /CHANNEL/USER                 publishing: POST
//     /CHANNEL/USER/SESSION         a session: PATCH, DELETE
//     /CHANNEL/USER/SESSION/events  an answer that lasts as long as the session: GET
//
// The last is no part of WHIP, which keeps GET of a session itself for later versions; clients
// learn of it by a Link of the relation "monitor" (RFC 8288) in the answer to their offer.
//
// Any thread; an object is only read once it is made.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <variant>

#include "core_service/channel/whip/answers.h"

namespace zelta::core_service {

// Of an offer, or a fragment; a browser's has some 10 KiB.
constexpr int64_t kMostBodyBytes = 64 << 10;

// A request but for its body. Headers that it doesn't have are empty.
struct request_head {
  std::string method;
  std::string path;          // as it came, percent-encoded
  std::string content_type;  // without parameters
  std::string authorization;
  std::string if_match;
  int64_t body_bytes = 0;  // as it says; 0 as well when it doesn't
};

class whip_rules {
 public:
  // `channel` as people write it; an empty token: none is asked for.
  whip_rules(const std::string& channel, const std::string& token);

  // A question whose body is still to come, or the answer.
  std::variant<whip_question, http_answer> judge(const request_head& head) const;

  // The same in a path of a URL.
  const std::string& channel_path() const { return channel_path_; }

 private:
  using digest = std::array<unsigned char, 32>;
  static digest digest_of(const std::string& text);
  bool has_token(const std::string& authorization) const;
  http_answer answer_page(const request_head& head) const;

  const std::string channel_;
  const std::string channel_path_;
  const bool asks_token_;
  const digest token_;
  const std::string policy_;  // of the page
};

// Of a body that is too long.
http_answer too_long();

}  // namespace zelta::core_service
