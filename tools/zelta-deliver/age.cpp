// SPDX-License-Identifier: Apache-2.0
#include "age.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "child_process.h"
#include "disk.h"

namespace zelta::deliver {
namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTrial{30};

// Of PATH; empty: it isn't there.
std::string find_age() {
  const char* const path = std::getenv("PATH");
  const std::string folders = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  for (size_t at = 0; at <= folders.size();) {
    const size_t colon = std::min(folders.find(':', at), folders.size());
    std::string program = folders.substr(at, colon - at) + "/age";
    struct stat is {};
    // What isn't absolute depends on where we were started.
    const bool fits = program.front() == '/' && stat(program.c_str(), &is) == 0 &&
                      S_ISREG(is.st_mode) && access(program.c_str(), X_OK) == 0;
    if (fits && colon > at) return program;
    at = colon + 1;
  }
  return "";
}

// What a stalled one no longer changes: where it reads, and how much it has written.
std::pair<off_t, off_t> progress_of(int plain, int to) {
  struct stat written {};
  return {lseek(plain, 0, SEEK_CUR), fstat(to, &written) == 0 ? written.st_size : 0};
}

}  // namespace

outcome seal(const std::string& age, const std::vector<std::string>& keys, int plain, int to,
             std::chrono::seconds stall, const pace& limits) {
  child_call call;
  // No variable is for it: neither a credential nor what would change how it runs.
  call.command = {age};
  for (const std::string& key : keys) call.command.insert(call.command.end(), {"-r", key});
  call.in = plain;
  call.out = to;
  // Its input's place is that of our descriptor.
  auto progress = progress_of(plain, to);
  auto until = clock::now() + stall;
  const auto may_go_on = [&] {
    if (limits.stopped()) return false;
    const auto now = progress_of(plain, to);
    if (std::exchange(progress, now) != now) until = clock::now() + stall;
    return clock::now() < until;
  };
  std::string said;
  const child_end end = run_child(call, may_go_on, [&said](const std::string& line) {
    // The first line is the error, others are advice.
    if (said.empty()) said = line;
  });
  if (end.ok()) return {};
  if (end.failed != 0) {
    return {outcome::kLater, "posix_spawn " + age + ": " + std::strerror(end.failed), 0};
  }
  if (end.cut && limits.stopped()) return {outcome::kStopped, "stopped", 0};
  if (end.cut) {
    return {outcome::kLater, age + " did nothing for " + std::to_string(stall.count()) + " s", 0};
  }
  return {outcome::kLater, age + " " + end.how() + (said.empty() ? "" : ": " + said), 0};
}

void check_sealing(const std::string& path, delivery_settings& settings,
                   std::vector<std::string>& errors) {
  for (const target_settings& target : settings.targets) {
    if (!target.is_sealed()) continue;
    const std::string key = path + ": target \"" + target.name + "\": encrypt_for: ";
    if (settings.age.empty()) settings.age = find_age();
    if (settings.age.empty()) {
      errors.push_back(key + "the program age seals, and isn't on PATH; install the package age");
      return;
    }
    const base::unique_fd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    const pace unbound(0);
    const outcome tried =
        seal(settings.age, target.encrypt_for, nothing.get(), nothing.get(), kTrial, unbound);
    if (tried.is != outcome::kDone) errors.push_back(key + tried.text);
  }
}

}  // namespace zelta::deliver
