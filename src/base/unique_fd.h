// SPDX-License-Identifier: Apache-2.0
// Owner of one file descriptor.
#pragma once

#include <utility>

#include <unistd.h>

namespace zelta::base {

// Taken by value where ownership passes; an int lends. Not thread-safe.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Hands it over to the caller.
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    // Linux frees the descriptor whatever close returns, so there is nothing to do about an error.
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace zelta::base
