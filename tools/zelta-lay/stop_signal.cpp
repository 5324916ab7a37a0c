// SPDX-License-Identifier: Apache-2.0
#include "stop_signal.h"

#include <atomic>
#include <csignal>

#include "zelta-record/ending_signals.h"

namespace zelta::lay {
namespace {

// Which a handler may write, as it takes no lock.
std::atomic<int> came{0};
static_assert(std::atomic<int>::is_always_lock_free);

void take(int number) {
  came = number;
}

}  // namespace

void watch_stop_signals() {
  for (const int number : record::ending_signals()) {
    struct sigaction then {};
    then.sa_handler = take;
    // Can't fail: the numbers are right.
    (void)sigaction(number, &then, nullptr);
  }
}

int stop_signal() {
  return came;
}

void throw_if_stopped() {
  if (came != 0) throw stopped();
}

int is_stopped(void* /*unused*/) {
  return came != 0 ? 1 : 0;
}

}  // namespace zelta::lay
