// SPDX-License-Identifier: Apache-2.0
// Requests of libcurl's, one at a time. An http_client belongs to one thread; it keeps connections
// for the next request. Only what its pace allows is sent, and after pace::stop() all fail at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pace.h"

namespace zelta::deliver {

struct http_request {
  std::string method;  // "PUT", "HEAD", …; empty: an upload by SFTP, or a download
  std::string url;
  std::vector<std::string> headers;  // "Name: value"
  // What is sent: `text`, or of an open file, lent, `bytes` from `offset` on.
  std::string text;
  int file = -1;
  uint64_t offset = 0;
  uint64_t bytes = 0;

  std::string user;
  std::string password;
  std::string sigv4;  // as for CURLOPT_AWS_SIGV4; user and password are then the keys
  std::string ca_file;
  std::string key_file;                     // SFTP
  std::string known_hosts;                  // SFTP
  std::vector<std::string> commands_after;  // SFTP
  // Without a byte either way, or with less than 1 KiB a second where a sink takes; an answer to a
  // file has twice as long once it began.
  std::chrono::seconds stall{60};
  // Of the whole request, where neither a file goes nor a sink takes; 0: as the stall has it.
  std::chrono::seconds limit{0};
  // Gets what is answered; false ends the transfer, which then counts as done. Without it the first
  // 64 KiB are in the answer, and end it.
  std::function<bool(const char*, size_t)> sink;
};

struct http_answer {
  bool carried = false;       // there was an answer; `error` says why not
  bool final = false;         // not carried, and trying again hardly mends it
  bool failed_after = false;  // not carried, as one of `commands_after` failed
  std::string error;
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  // names in lower case
  int64_t length = -1;                         // as announced; below 0: not

  bool ok() const { return carried && status >= 200 && status < 300; }
};

class http_client {
 public:
  // `limits` outlives it. Throws std::bad_alloc.
  explicit http_client(pace& limits);

  // Throws std::runtime_error when this libcurl can't do what is asked for.
  http_answer perform(const http_request& request);

 private:
  struct release {
    void operator()(void* easy) const;
  };

  pace& limits_;
  std::unique_ptr<void, release> easy_;
};

// Once, before any thread is started. Proxies are those of the environment, as libcurl has it.
bool prepare_http();

// A segment of a path, or with `keep_slashes` a path: all but unreserved characters as %XX
// (RFC 3986, section 2.3), as signatures want it.
std::string percent_encoded(const std::string& text, bool keep_slashes);
std::string percent_decoded(const std::string& text);

}  // namespace zelta::deliver
