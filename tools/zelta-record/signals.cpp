// SPDX-License-Identifier: Apache-2.0
#include "signals.h"

#include <csignal>

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "ending_signals.h"

namespace zelta::record {
namespace {

volatile std::sig_atomic_t g_seen = 0;

// A terminal that goes away may say so twice, and isn't impatient.
void on_impatience(int number) {
  if (number == SIGHUP) return;
  const int seen = g_seen;
  g_seen = seen + 1;
  if (seen == 0) return;
  constexpr char kText[] =
      "\nzelta-record: not waiting: the recorder completes its files by itself\n";
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, kText, sizeof kText - 1);
  _exit(128 + number);
}

sigset_t taken_signals() {
  sigset_t taken;
  sigemptyset(&taken);
  // A blocked signal is kept for us even where it is ignored.
  for (const int number : ending_signals()) sigaddset(&taken, number);
  return taken;
}

}  // namespace

signal_watch::signal_watch() {
  const sigset_t taken = taken_signals();
  pthread_sigmask(SIG_BLOCK, &taken, nullptr);
  signals_.reset(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

int signal_watch::take() {
  signalfd_siginfo info{};
  if (read(signals_.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return 0;
  g_seen = g_seen + 1;
  return static_cast<int>(info.ssi_signo);
}

void signal_watch::end_at_the_next() {
  const sigset_t taken = taken_signals();
  struct sigaction action {};
  action.sa_handler = on_impatience;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  for (const int number : ending_signals()) sigaction(number, &action, nullptr);
  pthread_sigmask(SIG_UNBLOCK, &taken, nullptr);
}

}  // namespace zelta::record
