// SPDX-License-Identifier: Apache-2.0
// A program as its user runs it: at a terminal of its own, or with standard input from a pipe.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::test {

class Program {
 public:
  // Standard output and error are the terminal's; `input`, when there is one, goes in by a pipe
  // that ends behind it.
  explicit Program(std::vector<std::string> arguments, unsigned short columns = 100,
                   const std::string* input = nullptr) {
    std::vector<char*> argv;
    for (std::string& text : arguments) argv.push_back(text.data());
    argv.push_back(nullptr);
    int pipe_ends[2] = {-1, -1};
    if (input != nullptr && pipe2(pipe_ends, O_CLOEXEC) != 0) return;
    winsize size{24, columns, 0, 0};
    int terminal = -1;
    pid_ = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid_ == 0) {
      if (input != nullptr) dup2(pipe_ends[0], STDIN_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    terminal_.reset(terminal);
    if (input == nullptr) return;
    const base::unique_fd read_end(pipe_ends[0]);
    const base::unique_fd write_end(pipe_ends[1]);
    [[maybe_unused]] const ssize_t all = write(write_end.get(), input->data(), input->size());
  }
  ~Program() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }
  // All that it has printed so far.
  const std::string& text() const { return text_; }
  void type(const std::string& keys) const {
    [[maybe_unused]] const ssize_t all = write(terminal_.get(), keys.data(), keys.size());
  }
  // Until `part` has been printed, and `count` times; false after 20 s, or when nothing more comes.
  bool wait_for(const std::string& part, int count = 1) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (times(part) < count) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          limit - std::chrono::steady_clock::now());
      pollfd output{terminal_.get(), POLLIN, 0};
      char bytes[4096];
      if (left.count() <= 0 || poll(&output, 1, static_cast<int>(left.count())) <= 0) return false;
      const ssize_t got = read(terminal_.get(), bytes, sizeof bytes);
      if (got <= 0) return false;
      text_.append(bytes, static_cast<size_t>(got));
    }
    return true;
  }
  // Its status, or 1000 and the number of the signal that ended it.
  int end() {
    wait_for("\x01never");
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }
  std::string last_line() const {
    const size_t end = text_.find_last_not_of("\r\n");
    const size_t start = text_.find_last_of('\n', end);
    return text_.substr(start + 1, end - start);
  }

 private:
  int times(const std::string& part) const {
    int found = 0;
    for (size_t at = text_.find(part); at != std::string::npos; at = text_.find(part, at + 1))
      ++found;
    return found;
  }

  pid_t pid_ = -1;
  base::unique_fd terminal_;
  std::string text_;
};

}  // namespace zelta::test
