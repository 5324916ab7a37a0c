// SPDX-License-Identifier: Apache-2.0
#include "core_service/load/descriptors.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/resource.h>

#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

// Most of them are opened only once media comes, so that counting those that are open tells too
// little; and while one file gives way to the next, both are open.
constexpr rlim_t kUser = 16;
constexpr rlim_t kReserve = 64;

rlimit limit() {
  rlimit now{};
  getrlimit(RLIMIT_NOFILE, &now);
  return now;
}

}  // namespace

void raise_descriptor_limit() {
  rlimit now = limit();
  now.rlim_cur = now.rlim_max;
  setrlimit(RLIMIT_NOFILE, &now);
}

std::string shortage_beyond(size_t users) {
  const rlim_t most = limit().rlim_cur;
  if (kReserve + kUser * (users + 1) <= most) return "";
  return std::to_string(most) + " descriptors (ulimit -n, LimitNOFILE) are enough for " +
         std::to_string(users) + " users";
}

bool are_descriptors_used_up() {
  const base::unique_fd spare(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return !spare.valid() && is_shortage(errno);
}

bool is_shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM;
}

}  // namespace zelta::core_service
