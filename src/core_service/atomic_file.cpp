// SPDX-License-Identifier: Apache-2.0
#include "core_service/atomic_file.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

// Synced, so that the rename that follows never makes an empty file the true one.
bool write_whole(const std::string& path, const std::string& text) {
  const base::unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!file.valid()) return false;
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    done += static_cast<size_t>(written);
  }
  return fsync(file.get()) == 0;
}

}  // namespace

bool replace_file(const std::string& path, const std::string& text) {
  const std::string fresh = path + ".new";
  if (write_whole(fresh, text) && std::rename(fresh.c_str(), path.c_str()) == 0) return true;
  const int why = errno;
  unlink(fresh.c_str());
  errno = why;
  return false;
}

}  // namespace zelta::core_service
