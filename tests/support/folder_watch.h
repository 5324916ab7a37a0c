// SPDX-License-Identifier: Apache-2.0
// Waiting for what other processes do in a folder.
#pragma once

#include <array>
#include <chrono>
#include <string>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::test {

// Waits, for `limit` at most, until `ready` holds, which is looked at whenever `folder` changes.
template <class Ready>
bool wait_in_folder(const std::string& folder, std::chrono::milliseconds limit, Ready ready) {
  const base::unique_fd changes(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  inotify_add_watch(changes.get(), folder.c_str(), IN_MOVED_TO | IN_DELETE | IN_MODIFY);
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!ready()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd changed{changes.get(), POLLIN, 0};
    if (left.count() <= 0 || poll(&changed, 1, static_cast<int>(left.count())) == 0) return false;
    std::array<char, 4096> events{};
    while (read(changes.get(), events.data(), events.size()) > 0) {
    }
  }
  return true;
}

}  // namespace zelta::test
