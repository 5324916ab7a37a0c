// SPDX-License-Identifier: Apache-2.0
#include "fleet/recorder_child.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <utility>

#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zelta::fleet {
namespace {

constexpr size_t kLongestLine = size_t{1} << 20;
constexpr int kSignalled = 128;

struct pipe_ends {
  base::unique_fd read;
  base::unique_fd write;
};

bool make_pipe(pipe_ends& made) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  made.read.reset(ends[0]);
  made.write.reset(ends[1]);
  return true;
}

std::vector<char*> pointers_to(const std::vector<std::string>& texts) {
  std::vector<char*> made;
  for (const std::string& text : texts) made.push_back(const_cast<char*>(text.c_str()));
  made.push_back(nullptr);
  return made;
}

class spawn_setup {
 public:
  spawn_setup() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  ~spawn_setup() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  spawn_setup(const spawn_setup&) = delete;
  spawn_setup& operator=(const spawn_setup&) = delete;

  int spawn(pid_t& pid, const std::vector<std::string>& argv,
            const std::vector<std::string>& environment, int in, int out, int err) {
    int failed = 0;
    const auto check = [&failed](int result) {
      if (failed == 0) failed = result;
    };
    check(posix_spawn_file_actions_adddup2(&actions_, in, STDIN_FILENO));
    check(posix_spawn_file_actions_adddup2(&actions_, out, STDOUT_FILENO));
    check(posix_spawn_file_actions_adddup2(&actions_, err, STDERR_FILENO));
    check(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    check(posix_spawnattr_setsigmask(&attributes_, &none));
    check(posix_spawnattr_setsigdefault(&attributes_, &all));
    // A Ctrl-C at the worker's terminal is for the worker, which ends its recordings in order.
    check(posix_spawnattr_setpgroup(&attributes_, 0));
    check(posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    if (failed != 0) return failed;
    return posix_spawn(&pid, argv.front().c_str(), &actions_, &attributes_,
                       pointers_to(argv).data(), pointers_to(environment).data());
  }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

}  // namespace

std::unique_ptr<recorder_child> recorder_child::start(base::event_loop& loop,
                                                      const std::vector<std::string>& argv,
                                                      const std::vector<std::string>& environment,
                                                      told to, std::string& error) {
  pipe_ends in;
  pipe_ends out;
  pipe_ends err;
  if (!make_pipe(in) || !make_pipe(out) || !make_pipe(err)) {
    error = std::string("pipe2: ") + std::strerror(errno);
    return nullptr;
  }
  pid_t pid = -1;
  const int failed =
      spawn_setup().spawn(pid, argv, environment, in.read.get(), out.write.get(), err.write.get());
  if (failed != 0) {
    error = "posix_spawn " + argv.front() + ": " + std::strerror(failed);
    return nullptr;
  }
  std::unique_ptr<recorder_child> made(new recorder_child(pid, std::move(to)));
  made->pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!made->pidfd_.valid()) {
    error = std::string("pidfd_open (needs Linux 5.3): ") + std::strerror(errno);
    return nullptr;
  }
  made->in_ = std::move(in.write);
  made->out_ = std::move(out.read);
  made->err_ = std::move(err.read);
  // A recorder that doesn't read its commands must not hold up all others.
  for (const int fd : {made->in_.get(), made->out_.get(), made->err_.get()}) {
    fcntl(fd, F_SETFL, O_NONBLOCK);
  }
  recorder_child* const self = made.get();
  self->out_watch_ = {loop, self->out_.get(), {[self] { self->read_out(); }}};
  self->err_watch_ = {loop, self->err_.get(), {[self] { self->read_err(); }}};
  self->end_watch_ = {loop, self->pidfd_.get(), {[self] { self->on_gone(); }}};
  return made;
}

recorder_child::~recorder_child() {
  if (reaped_) return;
  kill_now();
  int ignored = 0;
  while (waitpid(pid_, &ignored, 0) < 0 && errno == EINTR) continue;
}

void recorder_child::send_signal(int number) const {
  if (!reaped_) kill(pid_, number);
}

void recorder_child::kill_now() const {
  send_signal(SIGKILL);
}

bool recorder_child::command(const std::string& line) {
  const std::string text = line + "\n";
  // Less than a pipe takes at once: all of it goes, or nothing.
  return in_.valid() && text.size() <= PIPE_BUF &&
         write(in_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

recorder_child::lines::got recorder_child::lines::take(
    int from, const std::function<void(std::string)>& say) {
  std::array<char, 16384> piece{};
  const ssize_t count = read(from, piece.data(), piece.size());
  if (count < 0 && errno == EINTR) return got::kSome;
  if (count < 0) return errno == EAGAIN ? got::kNothing : got::kEnd;
  if (count == 0) return got::kEnd;
  for (size_t at = 0; at < static_cast<size_t>(count); ++at) {
    if (piece[at] == '\n' || rest_.size() >= kLongestLine) say(std::exchange(rest_, {}));
    if (piece[at] != '\n') rest_ += piece[at];
  }
  return got::kSome;
}

void recorder_child::lines::rest(const std::function<void(std::string)>& say) {
  if (!rest_.empty()) say(std::exchange(rest_, {}));
}

void recorder_child::say_event(const std::string& line) const {
  Json::Value event;
  std::string fault;
  try {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (reader->parse(line.data(), line.data() + line.size(), &event, &fault) && event.isObject()) {
      return told_.event(event);
    }
  } catch (const std::exception&) {
    // Nested too deeply, which it never writes.
  }
  told_.line(line);
}

void recorder_child::read_out() {
  const auto say = [this](const std::string& line) { say_event(line); };
  if (out_lines_.take(out_.get(), say) == lines::got::kEnd) out_watch_.stop();
}

void recorder_child::read_err() {
  if (err_lines_.take(err_.get(), told_.line) == lines::got::kEnd) err_watch_.stop();
}

void recorder_child::on_gone() {
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return;
  reaped_ = true;
  end_watch_.stop();
  // What it has written is here by now; its recorder may live on and hold nothing of ours.
  for (const auto& [fd, is_out] : {std::pair(out_.get(), true), std::pair(err_.get(), false)}) {
    lines& of = is_out ? out_lines_ : err_lines_;
    const auto say = [this, is_out = is_out](const std::string& line) {
      is_out ? say_event(line) : told_.line(line);
    };
    while (of.take(fd, say) == lines::got::kSome) continue;
    of.rest(say);
  }
  out_watch_.stop();
  err_watch_.stop();
  const auto tell = told_.ended;
  tell(WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status));
}

}  // namespace zelta::fleet
