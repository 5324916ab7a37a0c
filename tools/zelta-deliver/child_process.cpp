// SPDX-License-Identifier: Apache-2.0
#include "child_process.h"

#include <cerrno>
#include <csignal>
#include <cstddef>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::deliver {
namespace {

constexpr size_t kLongestLine = 1000;
constexpr size_t kMostAfterEnd = size_t{64} * 1024;
constexpr int kLookMs = 100;  // whether it may go on, of which no descriptor tells

// Killed and reaped at the latest by its destructor.
class child_process {
 public:
  child_process() = default;
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;
  ~child_process() {
    if (pid_ > 0) end();
  }

  int start(const child_call& call, int out);
  // Kills what is left of the group.
  void end() {
    kill(-pid_, SIGKILL);
    int ignored = 0;
    while (waitpid(pid_, &ignored, 0) < 0 && errno == EINTR) continue;
    pid_ = 0;
  }
  bool try_reap(int& status) {
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    // Its children may live on and hold the output open.
    kill(-pid_, SIGKILL);
    pid_ = 0;
    return true;
  }
  // Readable once it has ended; invalid on kernels that have none, which costs a look's time.
  int ended() const { return ended_.get(); }

 private:
  pid_t pid_ = 0;
  base::unique_fd ended_;
};

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> made;
  for (const std::string& text : texts) made.push_back(const_cast<char*>(text.c_str()));
  made.push_back(nullptr);
  return made;
}

int child_process::start(const child_call& call, int out) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) return ENOMEM;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return ENOMEM;
  }
  // These fail for want of memory alone, and then the spawn fails, too, or the child has no input.
  posix_spawn_file_actions_adddup2(&actions, call.in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, call.out >= 0 ? call.out : out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  sigset_t none;
  sigemptyset(&none);
  sigset_t ours;
  sigemptyset(&ours);
  for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) sigaddset(&ours, signal);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &ours);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<char*> arguments = pointers(call.command);
  std::vector<char*> variables = pointers(call.environment);
  const int failed = posix_spawn(&pid_, call.command.front().c_str(), &actions, &attributes,
                                 arguments.data(), variables.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (failed != 0) {
    pid_ = 0;
    return failed;
  }
  ended_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  return 0;
}

// Hands whole lines on.
class line_splitter {
 public:
  explicit line_splitter(const std::function<void(const std::string&)>& say) : say_(say) {}
  ~line_splitter() {
    if (!line_.empty()) say_(line_);
  }
  line_splitter(const line_splitter&) = delete;
  line_splitter& operator=(const line_splitter&) = delete;
  void add(const char* bytes, size_t size) {
    for (size_t at = 0; at < size; ++at) {
      if (bytes[at] == '\n' || line_.size() >= kLongestLine) {
        say_(line_);
        line_.clear();
      }
      if (bytes[at] != '\n') line_ += bytes[at];
    }
  }

 private:
  const std::function<void(const std::string&)>& say_;
  std::string line_;
};

// True once it has ended and its output is read; false when it is not to go on.
bool listen(int out, child_process& child, int& status, const std::function<bool()>& may_go_on,
            line_splitter& lines) {
  char piece[4096];
  size_t after_end = 0;
  for (bool gone = false, open = true;;) {
    // It may close its output and work on.
    pollfd on[2] = {{open ? out : -1, POLLIN, 0}, {gone ? -1 : child.ended(), POLLIN, 0}};
    // What fails leaves nothing to be read, and the look below comes all the same.
    static_cast<void>(poll(on, 2, gone ? 0 : kLookMs));
    if (on[0].revents != 0) {
      const ssize_t got = read(out, piece, sizeof piece);
      if (got > 0) lines.add(piece, static_cast<size_t>(got));
      if (got <= 0) open = false;
      if (gone && got > 0) after_end += static_cast<size_t>(got);
    }
    if (gone && (!open || on[0].revents == 0 || after_end > kMostAfterEnd)) return true;
    if (gone) continue;
    gone = child.try_reap(status);
    if (!gone && !may_go_on()) return false;
  }
}

}  // namespace

std::string child_end::how() const {
  return WIFEXITED(status) ? "ended with " + std::to_string(WEXITSTATUS(status))
                           : "was ended by signal " + std::to_string(WTERMSIG(status));
}

child_end run_child(const child_call& call, const std::function<bool()>& may_go_on,
                    const std::function<void(const std::string&)>& say) {
  child_end made;
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    made.failed = errno;
    return made;
  }
  const base::unique_fd out(ends[0]);
  base::unique_fd theirs(ends[1]);
  child_process child;
  made.failed = child.start(call, theirs.get());
  theirs.reset();
  if (made.failed != 0) return made;
  line_splitter lines(say);
  made.cut = !listen(out.get(), child, made.status, may_go_on, lines);
  return made;
}

}  // namespace zelta::deliver
