// SPDX-License-Identifier: Apache-2.0
#include "common/command_line.h"

#include <cstdio>
#include <sstream>

#include <CLI/CLI.hpp>

namespace zelta::tools {

parse_result parse_command_line(CLI::App& app, int argc, const char* const* argv, int bad_usage,
                                const std::function<std::string()>& settle) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    std::ostringstream said;
    if (app.exit(e, said, said) == 0) return {false, said.str(), 0};
    return {false, std::string(e.what()) + "; --help lists all options", bad_usage};
  }
  const std::string fault = settle();
  return fault.empty() ? parse_result{true, "", 0} : parse_result{false, fault, bad_usage};
}

int print(const parse_result& parsed, const char* tool) {
  if (parsed.exit_status == 0) {
    std::fputs(parsed.message.c_str(), stdout);
  } else {
    std::fprintf(stderr, "%s: %s\n", tool, parsed.message.c_str());
  }
  return parsed.exit_status;
}

}  // namespace zelta::tools
