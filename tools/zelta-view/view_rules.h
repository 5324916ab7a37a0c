// SPDX-License-Identifier: Apache-2.0
// What may be asked of the server, and by whom:
//
//     /               the page
//     /session.json   what there is, see session_json.h
//     /files/NAME     a file that a manifest names
//     /levels/NAME    its volumes
//
// POST of / brings the token, by the form that visitors without it get there.
//
// With a token a request has to bring it, as a bearer token or by the cookie that the form gives.
// Without one its Host has to be an IP address or localhost: a page of somebody else's whose name
// was made to lead here isn't let in. Other sites may lead to the page, by a link, and to nothing
// else.
//
// Any thread; an object is only read once it is made.
#pragma once

#include <string>

namespace zelta::view {

struct request_head {
  std::string method;
  std::string path;  // as it came, percent-encoded
  std::string host;
  std::string authorization;
  std::string cookie;
  std::string fetch_site;  // Sec-Fetch-Site, which browsers send
};

struct verdict {
  enum kind { kPage, kSession, kFile, kLevels, kEnter, kAskToken, kRefuse };
  kind what = kRefuse;
  std::string name;  // of a file: no slash in it
  int status = 200;
  std::string text;  // of a refusal
};

class view_rules {
 public:
  // An empty token: none is asked for. `cookie` is what a visitor who knew it brings: a secret of
  // this process alone. Its name has the port, since cookies of one host are shared by all ports.
  view_rules(const std::string& token, const std::string& cookie, int port);

  verdict judge(const request_head& head) const;
  // Whether the form's body, as application/x-www-form-urlencoded, has the token.
  bool knows_token(const std::string& body) const;
  // The value of Set-Cookie.
  std::string cookie_header() const;

 private:
  bool is_let_in(const request_head& head) const;

  const bool asks_token_;
  // Compared by their digests, so that the time that it takes tells nothing of them.
  const std::string token_digest_;
  const std::string cookie_name_;
  const std::string cookie_;
  const std::string cookie_digest_;
};

// 32 bytes of the kernel's, in hexadecimal.
std::string fresh_secret();

}  // namespace zelta::view
