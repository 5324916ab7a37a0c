// SPDX-License-Identifier: Apache-2.0
#include "stop_signal.h"

#include <csignal>
#include <initializer_list>

namespace zelta::lay {
namespace {

volatile std::sig_atomic_t came = 0;

void take(int number) {
  came = number;
}

}  // namespace

void watch_stop_signals() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction now {};
    // Can't fail: the numbers are right.
    (void)sigaction(number, nullptr, &now);
    if (now.sa_handler == SIG_IGN) continue;
    struct sigaction then {};
    then.sa_handler = take;
    (void)sigaction(number, &then, nullptr);
  }
}

int stop_signal() {
  return came;
}

}  // namespace zelta::lay
