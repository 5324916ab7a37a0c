// SPDX-License-Identifier: Apache-2.0
// zelta-lay: one film of a recording's many files.
#include <cstdio>

#include "lay.h"
#include "options.h"
#include "stop_signal.h"

int main(int argc, char** argv) {
  using namespace zelta;
  lay::watch_stop_signals();
  lay::options o;
  const lay::parse_result parsed = lay::parse_options(argc, argv, o);
  if (!parsed.ok) {
    std::fputs(parsed.message.c_str(), parsed.exit_status == 0 ? stdout : stderr);
    return parsed.exit_status;
  }
  return lay::lay(o);
}
