// SPDX-License-Identifier: Apache-2.0
#include "new_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace zelta::lay {
namespace {

// Of a process of the same number that was killed, a few may have been left.
constexpr int kTries = 100;

bool is_synced(int fd) {
  // Where nothing can be synced (EINVAL), nothing is lost by going on.
  return fsync(fd) == 0 || errno == EINVAL;
}

}  // namespace

new_file::new_file(std::string path, bool overwrite)
    : path_(std::move(path)), overwrite_(overwrite) {
  for (int i = 0; i < kTries && !file_.valid(); ++i) {
    part_ =
        path_ + "." + std::to_string(getpid()) + (i == 0 ? "" : "-" + std::to_string(i)) + ".part";
    file_.reset(open(part_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file_.valid() && errno != EEXIST) break;
  }
  if (!file_.valid()) fail(part_ + " can't be made");
}

new_file::~new_file() {
  // It may not be there any more; then there is nothing to remove.
  if (!finished_) (void)unlink(part_.c_str());
}

void new_file::fail(const std::string& what) const {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

void new_file::write(const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = ::write(file_.get(), text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) fail(part_ + " can't be written");
    done += static_cast<size_t>(written);
  }
}

void new_file::take_name() const {
  const char* const from = part_.c_str();
  const char* const to = path_.c_str();
  if (overwrite_) {
    if (std::rename(from, to) != 0) fail("rename " + part_);
    return;
  }
  // Somebody may have made it meanwhile.
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return;
  // File systems that can't do it in one have links, which replace nothing either.
  const bool linked = (errno == EINVAL || errno == ENOSYS) && link(from, to) == 0;
  if (!linked) fail(path_ + " can't get its name");
  (void)unlink(from);
}

void new_file::finish() {
  // Or a machine that crashes may keep the name, and lose what is in it.
  if (!is_synced(file_.get())) fail(part_ + " can't be synced");
  take_name();
  finished_ = true;
  const auto folder = std::filesystem::absolute(path_).parent_path();
  const base::unique_fd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Of a folder that may not be read, the name is on the disk a little later.
  if (opened.valid() && !is_synced(opened.get())) fail(folder.string() + " can't be synced");
}

}  // namespace zelta::lay
