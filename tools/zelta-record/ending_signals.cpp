// SPDX-License-Identifier: Apache-2.0
#include "ending_signals.h"

#include <csignal>

namespace zelta::record {

std::vector<int> ending_signals() {
  std::vector<int> made;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction now {};
    if (sigaction(number, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) made.push_back(number);
  }
  return made;
}

}  // namespace zelta::record
