// SPDX-License-Identifier: Apache-2.0
// The recorder as a child process.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "base/unique_fd.h"

namespace zelta::link {

// Descriptors of the link in the child, named to it by "--read" and "--write".
constexpr int kChildReadFd = 3;
constexpr int kChildWriteFd = 4;

// Owns one child: whatever happens, it is ended and reaped by the destructor at the latest. Reaps
// its own pid alone, so it gets along with an application that has children of its own. Not
// thread-safe.
class recorder_process {
 public:
  // Starts `argv[0]`, a path, with exactly the descriptors 0, 1, 2 (/dev/null where the
  // application has closed one), `read_end` as kChildReadFd and `write_end` as kChildWriteFd;
  // default signals, an empty signal mask, the application's environment with the `variables`
  // ("NAME=VALUE") in place of its own, and a process group of its own: a Ctrl-C at the terminal is
  // for the application, which ends the recording in order. The ends must be 5 or above. On failure
  // the text of `error` says which call failed and why.
  static std::optional<recorder_process> start(const std::vector<std::string>& argv,
                                               const std::vector<std::string>& variables,
                                               int read_end, int write_end, std::string& error);

  recorder_process(recorder_process&& other) noexcept;
  recorder_process& operator=(recorder_process&&) = delete;
  recorder_process(const recorder_process&) = delete;
  recorder_process& operator=(const recorder_process&) = delete;
  ~recorder_process();

  pid_t pid() const { return pid_; }
  // Waits until the child has ended, and reaps it; false when it still runs after `limit`.
  bool wait(std::chrono::milliseconds limit);
  // Ends the child in stages: waits `patience`, then SIGTERM and waits `term_patience`, then
  // SIGKILL. Returns what it took: "", "SIGTERM" or "SIGKILL".
  const char* end(std::chrono::milliseconds patience, std::chrono::milliseconds term_patience);
  // Readable once the child has ended; lent.
  int end_fd() const { return pidfd_.get(); }
  // How the child ended, for the log: "exit status 0", "signal 9". Empty before that.
  const std::string& how_ended() const { return how_ended_; }
  // A crash, or by force: its files may lack their end.
  bool was_killed() const { return was_killed_; }

 private:
  recorder_process(pid_t pid, base::unique_fd pidfd) : pid_(pid), pidfd_(std::move(pidfd)) {}

  void signal(int number) const;
  void reap();

  pid_t pid_ = -1;
  // Becomes readable when the child ends: a wait with a limit that needs no signal handler.
  base::unique_fd pidfd_;
  bool reaped_ = false;
  std::string how_ended_;
  bool was_killed_ = false;
};

}  // namespace zelta::link
