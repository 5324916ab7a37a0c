// SPDX-License-Identifier: Apache-2.0
// zelta-lay: one film of a recording's many files.
#include <algorithm>
#include <csignal>
#include <string>

#include "core_service/load/descriptors.h"
#include "lay.h"
#include "options.h"
#include "reporter.h"
#include "stop_signal.h"

int main(int argc, char** argv) {
  using namespace zelta;
  lay::watch_stop_signals();
  // Who reads what is told may leave; the film is made all the same.
  std::signal(SIGPIPE, SIG_IGN);
  // A file or two for each user, at a time.
  core_service::raise_descriptor_limit();
  lay::options o;
  const lay::parse_result parsed = lay::parse_options(argc, argv, o);
  if (!parsed.ok && parsed.exit_status == 0) return tools::print(parsed, "zelta-lay");
  if (!parsed.ok) {
    // As it stands there, for what is wrong may come before it.
    const bool json = std::find(argv + 1, argv + argc, std::string("--json")) != argv + argc;
    lay::reporter(json).end(parsed.exit_status, parsed.message);
    return parsed.exit_status;
  }
  return lay::lay(o);
}
