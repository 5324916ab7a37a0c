// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/atomic_file.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

// Where folders can't be locked, another process may replace the same file in the same moment, and
// have renamed what was to be renamed here.
constexpr int kTries = 3;

// A link leads to what isn't ours to write: whoever may write into the folder may have made it.
// False, with errno, when it stays.
bool remove_link(const std::string& path) {
  struct stat there {};
  if (lstat(path.c_str(), &there) != 0) return true;
  const bool has_other_names = S_ISREG(there.st_mode) && there.st_nlink > 1;
  return (!S_ISLNK(there.st_mode) && !has_other_names) || unlink(path.c_str()) == 0 ||
         errno == ENOENT;
}

bool write_whole(const std::string& path, const std::string& text, sync how) {
  if (!remove_link(path)) return false;
  const base::unique_fd file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!file.valid()) return false;
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    done += static_cast<size_t>(written);
  }
  // Or a machine that crashes may keep the rename that follows, and lose the text. Where nothing
  // can be synced (EINVAL), nothing is lost by going on.
  return how == sync::kNo || fsync(file.get()) == 0 || errno == EINVAL;
}

}  // namespace

bool replace_file(const std::string& path, const std::string& text, sync how) {
  const std::string fresh = path + ".new";
  for (int tries = 0; tries < kTries && write_whole(fresh, text, how); ++tries) {
    if (std::rename(fresh.c_str(), path.c_str()) == 0) return true;
    if (errno != ENOENT) break;
  }
  const int why = errno;
  unlink(fresh.c_str());
  errno = why;
  return false;
}

}  // namespace zelta::core_service
