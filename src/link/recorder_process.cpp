// SPDX-License-Identifier: Apache-2.0
#include "link/recorder_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zelta::link {

using namespace base;
namespace {

using std::chrono::milliseconds;

class spawn_actions {
 public:
  spawn_actions() { posix_spawn_file_actions_init(&actions_); }
  ~spawn_actions() { posix_spawn_file_actions_destroy(&actions_); }
  spawn_actions(const spawn_actions&) = delete;
  spawn_actions& operator=(const spawn_actions&) = delete;

  // 0 or the errno of the first action that could not be recorded.
  int prepare(int read_end, int write_end) {
    int failed = 0;
    for (int fd = 0; fd <= 2 && failed == 0; ++fd) {
      if (fcntl(fd, F_GETFD) >= 0) continue;
      failed = posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", O_RDWR, 0);
    }
    if (failed == 0) failed = posix_spawn_file_actions_adddup2(&actions_, read_end, kChildReadFd);
    if (failed == 0) failed = posix_spawn_file_actions_adddup2(&actions_, write_end, kChildWriteFd);
    // The application's own descriptors need not be close-on-exec, and are none of the child's.
    if (failed == 0) {
      failed = posix_spawn_file_actions_addclosefrom_np(&actions_, kChildWriteFd + 1);
    }
    return failed;
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

class spawn_attributes {
 public:
  spawn_attributes() { posix_spawnattr_init(&attributes_); }
  ~spawn_attributes() { posix_spawnattr_destroy(&attributes_); }
  spawn_attributes(const spawn_attributes&) = delete;
  spawn_attributes& operator=(const spawn_attributes&) = delete;

  int prepare() {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    int failed = posix_spawnattr_setsigdefault(&attributes_, &all);
    if (failed == 0) failed = posix_spawnattr_setsigmask(&attributes_, &none);
    if (failed == 0) failed = posix_spawnattr_setpgroup(&attributes_, 0);
    if (failed == 0) {
      failed = posix_spawnattr_setflags(
          &attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    }
    return failed;
  }
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

// posix_spawn takes its strings as char* for history's sake and doesn't change them.
std::vector<char*> pointers_to(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environment_with(const std::vector<std::string>& variables) {
  const auto is_replaced = [&variables](const std::string& inherited) {
    const std::string name = inherited.substr(0, inherited.find('=')) + "=";
    return std::any_of(variables.begin(), variables.end(), [&name](const std::string& variable) {
      return variable.compare(0, name.size(), name) == 0;
    });
  };
  std::vector<std::string> all = variables;
  for (char** inherited = environ; inherited != nullptr && *inherited != nullptr; ++inherited) {
    if (!is_replaced(*inherited)) all.emplace_back(*inherited);
  }
  return all;
}

std::string failure(const std::string& call, int number) {
  return call + ": " + std::strerror(number);
}

}  // namespace

std::optional<recorder_process> recorder_process::start(const std::vector<std::string>& argv,
                                                        const std::vector<std::string>& variables,
                                                        int read_end, int write_end,
                                                        std::string& error) {
  spawn_actions actions;
  spawn_attributes attributes;
  int failed = actions.prepare(read_end, write_end);
  if (failed == 0) failed = attributes.prepare();
  if (failed != 0) return error = failure("posix_spawn set-up", failed), std::nullopt;

  const std::vector<std::string> environment = environment_with(variables);
  const std::vector<char*> arguments = pointers_to(argv);
  pid_t pid = -1;
  failed = posix_spawn(&pid, arguments[0], actions.get(), attributes.get(), arguments.data(),
                       pointers_to(environment).data());
  if (failed != 0) return error = failure("posix_spawn " + argv[0], failed), std::nullopt;

  unique_fd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  recorder_process started(pid, std::move(pidfd));
  if (!started.pidfd_.valid()) {
    // The destructor ends the child: without the descriptor nothing could wait for it with a limit.
    return error = failure("pidfd_open (needs Linux 5.3)", errno), std::nullopt;
  }
  return started;
}

recorder_process::recorder_process(recorder_process&& other) noexcept
    : pid_(other.pid_),
      pidfd_(std::move(other.pidfd_)),
      reaped_(std::exchange(other.reaped_, true)),
      how_ended_(std::move(other.how_ended_)),
      was_killed_(other.was_killed_) {}

recorder_process::~recorder_process() {
  if (reaped_) return;
  signal(SIGKILL);
  reap();
}

void recorder_process::signal(int number) const {
  // The pid can't have been given to somebody else: it is freed by our own reaping.
  if (!reaped_) ::kill(pid_, number);
}

void recorder_process::reap() {
  int status = 0;
  pid_t reaped = -1;
  do {
    reaped = waitpid(pid_, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  reaped_ = true;
  was_killed_ = reaped == pid_ && WIFSIGNALED(status);
  if (reaped != pid_) {
    // The application ignores SIGCHLD, so the kernel has reaped the child and kept no status.
    how_ended_ = "status unknown";
  } else if (was_killed_) {
    how_ended_ = "signal " + std::to_string(WTERMSIG(status));
  } else {
    how_ended_ = "exit status " + std::to_string(WEXITSTATUS(status));
  }
}

bool recorder_process::wait(milliseconds limit) {
  if (reaped_) return true;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  pollfd ended{pidfd_.get(), POLLIN, 0};
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    const int ready = ::poll(&ended, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready > 0) break;
    if (ready < 0 && errno == EINTR) continue;
    return false;
  }
  reap();
  return true;
}

const char* recorder_process::end(milliseconds patience, milliseconds term_patience) {
  if (wait(patience)) return "";
  signal(SIGTERM);
  if (wait(term_patience)) return "SIGTERM";
  signal(SIGKILL);
  reap();
  return "SIGKILL";
}

}  // namespace zelta::link
