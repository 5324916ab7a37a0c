// SPDX-License-Identifier: Apache-2.0
// Whoever decides what becomes of users who publish by WHIP (RFC 9725): what a whip_server asks.
//
// Everything on the loop's thread. Entity tags (RFC 9110, section 8.8.3) stand here as they do in
// headers, in their quotes.
#pragma once

#include <string>
#include <variant>

namespace zelta::core_service {

class publishers {
 public:
  struct refusal {
    int status;       // of HTTP, 400 to 599; others become 500
    std::string why;  // a line that says what is wrong and what would be right
    int retry_after_s = 0;
  };
  struct opened {
    std::string session;  // what the session's URL ends with: nobody can guess it
    std::string answer;   // SDP
    std::string etag;     // of the ICE session; may be empty
  };
  // `user` is a name as is_user_name() has it, `offer` SDP that nobody has looked at, at most
  // 64 KiB.
  virtual std::variant<opened, refusal> publish(const std::string& user,
                                                const std::string& offer) = 0;
  struct patched {
    std::string fragment;  // for the client (RFC 8840); empty: there is none
    std::string etag;      // of the ICE session from now on; may be empty
  };
  // `if_match` is empty when the client named no ICE session. 404 for a session that there isn't,
  // 412 for another ICE session, 428 where one has to be named (RFC 9725, section 4.3).
  virtual std::variant<patched, refusal> patch(const std::string& session,
                                               const std::string& fragment,
                                               const std::string& if_match) = 0;
  // False: there is no such session.
  virtual bool end(const std::string& session) = 0;
  // Whether there is such a session. Its end has to be told to the whip_server from now on.
  virtual bool has(const std::string& session) const = 0;

 protected:
  ~publishers() = default;
};

}  // namespace zelta::core_service
