// SPDX-License-Identifier: Apache-2.0
#include "disk.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core_service/folder/atomic_file.h"

namespace zelta::deliver {
namespace {

constexpr size_t kPiece = size_t{256} * 1024;

bool fail(std::string& error, const std::string& call) {
  error = call + ": " + std::strerror(errno);
  return false;
}

int64_t mtime_ns_of(const struct stat& status) {
  return int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

std::optional<stamp> stamp_of(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return std::nullopt;
  return stamp{static_cast<uint64_t>(status.st_size), mtime_ns_of(status)};
}

}  // namespace

std::optional<stamp> stamp_of(const std::string& path, std::string& error) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) return stamp_of(status);
  if (errno != ENOENT && errno != ENOTDIR) fail(error, "lstat " + path);
  return std::nullopt;
}

std::optional<stamp> stamp_of(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return std::nullopt;
  return stamp_of(status);
}

base::unique_fd open_plain(const std::string& path) {
  return base::unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

bool read_all(int fd, const std::function<bool(const char*, size_t)>& take, std::string& error) {
  std::vector<char> piece(kPiece);
  for (;;) {
    const ssize_t got = read(fd, piece.data(), piece.size());
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fail(error, "read");
    if (!take(piece.data(), static_cast<size_t>(got))) return true;
  }
}

std::optional<std::string> read_text(const std::string& path, size_t most, std::string& error) {
  const base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) {
    fail(error, "open " + path);
    return std::nullopt;
  }
  if (!stamp_of(file.get())) {
    error = path + " should be a plain file";
    return std::nullopt;
  }
  std::string text;
  const auto gather = [&text, most](const char* bytes, size_t size) {
    text.append(bytes, size);
    return text.size() <= most;
  };
  if (!read_all(file.get(), gather, error)) return std::nullopt;
  if (text.size() <= most) return text;
  error = path + " should have " + std::to_string(most) + " bytes at most";
  return std::nullopt;
}

bool write_all(int fd, const char* bytes, size_t size, std::string& error) {
  while (size > 0) {
    const ssize_t done = write(fd, bytes, size);
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return fail(error, "write");
    bytes += done;
    size -= static_cast<size_t>(done);
  }
  return true;
}

bool replace_file(const std::string& path, const std::string& text, std::string& error) {
  // Whoever may write into the folder may have put a pipe there, which opening would wait for.
  unlink((path + ".new").c_str());
  if (!core_service::replace_file(path, text, core_service::sync::kYes)) {
    return fail(error, "replace " + path);
  }
  return sync_folder(folder_of(path), error);
}

bool sync_folder(const std::string& path, std::string& error) {
  const base::unique_fd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.valid() ? sync_folder(folder.get(), error) : fail(error, "open " + path);
}

bool sync_folder(int folder, std::string& error) {
  // Some network file systems have nothing to sync a folder with.
  return fsync(folder) == 0 || errno == EINVAL || fail(error, "fsync of the folder");
}

folder_mark mark_of(const std::string& folder) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, mtime_ns_of(status)};
}

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

int64_t now_utc_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t steady_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace zelta::deliver
