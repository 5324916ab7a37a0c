// SPDX-License-Identifier: Apache-2.0
// Both ends of a pipe that blocks nobody.
#pragma once

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::test {

struct Pipe {
  // Sockets are what can't be spliced into.
  explicit Pipe(bool of_sockets = false) {
    int ends[2];
    const int failed =
        of_sockets ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends)
                   : pipe2(ends, O_NONBLOCK | O_CLOEXEC);
    if (failed != 0) std::abort();
    read.reset(ends[0]);
    write.reset(ends[1]);
  }
  bool put(const std::string& bytes) const {
    return ::write(write.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  base::unique_fd read;
  base::unique_fd write;
};

}  // namespace zelta::test
