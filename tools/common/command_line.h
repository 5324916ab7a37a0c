// SPDX-License-Identifier: Apache-2.0
// How a tool's command line is taken, and how it ends when it can't be.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace zelta::tools {

struct parse_result {
  bool ok = false;
  // When not ok: the text that was asked for (--help), with its line end, when the exit status is
  // 0, else what is wrong.
  std::string message;
  int exit_status = 0;
};

// Parses, and has `settle` look at what was parsed: it answers what is wrong with it, or nothing.
// Refused is with `bad_usage`. What `settle` throws goes through.
parse_result parse_command_line(CLI::App& app, int argc, const char* const* argv, int bad_usage,
                                const std::function<std::string()>& settle);

// Prints the message of a result that isn't ok, where it belongs, as the tool of that name. The
// exit status.
int print(const parse_result& parsed, const char* tool);

}  // namespace zelta::tools
