// SPDX-License-Identifier: Apache-2.0
#include "recordings/regular_file.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace zelta::recordings {

base::unique_fd open_regular(const std::string& folder, const std::string& name,
                             struct stat& status) {
  const std::string path = (folder.empty() || folder.back() == '/' ? folder : folder + "/") + name;
  base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat found {};
  if (!file.valid() || fstat(file.get(), &found) != 0) return {};
  if (!S_ISREG(found.st_mode)) {
    file.reset();
    errno = EINVAL;
    return {};
  }
  status = found;
  return file;
}

std::optional<regular_text> read_regular(const std::string& folder, const std::string& name,
                                         size_t most) {
  struct stat status {};
  const base::unique_fd file = open_regular(folder, name, status);
  if (!file.valid()) return std::nullopt;
  regular_text made;
  // One byte more tells that there is more, and it may grow while it is read.
  std::string& text = made.text;
  for (size_t done = 0;; text.resize(done)) {
    const size_t piece = std::min<size_t>(most + 1 - done, 256U << 10U);
    if (piece == 0) break;
    text.resize(done + piece);
    const ssize_t got = read(file.get(), text.data() + done, piece);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    done += static_cast<size_t>(got);
    if (got == 0) {
      text.resize(done);
      break;
    }
  }
  made.is_cut = text.size() > most;
  if (made.is_cut) text.resize(most);
  return made;
}

}  // namespace zelta::recordings
