// SPDX-License-Identifier: Apache-2.0
// The command line of zelta-view.
#pragma once

#include <string>

#include "common/command_line.h"

namespace zelta::view {

struct options {
  std::string folder;                 // with a slash at its end
  std::string address = "127.0.0.1";  // an IP address, without brackets
  int port = 0;                       // 0: one that is free
  std::string token;                  // empty: none is asked for
  std::string cache;                  // folder of measured volumes, with a slash; empty: none
  bool export_page = false;
  bool json = false;
};

using tools::parse_result;

// The token may come from a file and from the environment, which loses it. Before any thread.
parse_result parse_options(int argc, const char* const* argv, options& o);

// "ADDRESS:PORT", "[ADDRESS]:PORT" into its parts; an error or nothing.
std::string parse_address(const std::string& text, std::string& address, int& port);
bool is_loopback(const std::string& address);

}  // namespace zelta::view
