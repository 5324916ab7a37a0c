// SPDX-License-Identifier: Apache-2.0
// zelta-deliver's command line.
#pragma once

#include <string>
#include <vector>

#include "common/command_line.h"

namespace zelta::deliver {

struct options {
  std::vector<std::string> folders;  // absolute, without a slash at the end
  std::string watch;                 // a root, likewise; empty: none
  std::string root;                  // what folders are named after, from there on
  std::string settings_path;
  std::string metrics_address;
  bool json = false;
  bool status = false;
  bool retry_dead = false;
  bool left_over = false;
  int give_up_s = 0;  // 0: never
};

using tools::parse_result;

// `o` is of use when it is ok. Never throws.
parse_result parse_options(int argc, const char* const* argv, options& o);

// What a folder is called at targets; empty when it isn't under the root.
std::string remote_name(const options& o, const std::string& folder);

}  // namespace zelta::deliver
