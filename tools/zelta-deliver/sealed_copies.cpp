// SPDX-License-Identifier: Apache-2.0
#include "sealed_copies.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "age.h"
#include "digest.h"
#include "disk.h"

namespace zelta::deliver {
namespace {

constexpr const char* kFolderName = ".delivery";
constexpr const char* kPartEnding = ".part";
// A header of some hundred bytes a key, and 16 bytes for each 64 KiB.
constexpr uint64_t kHeadBytes = uint64_t{64} * 1024;
constexpr uint64_t kPieceBytes = uint64_t{64} * 1024;
constexpr uint64_t kTagBytes = 16;
// One part in so many of the disk.
constexpr uint64_t kShareLeft = 50;

struct close_stream {
  void operator()(DIR* stream) const { closedir(stream); }
};

outcome later(const std::string& call) {
  return {outcome::kLater, call + ": " + std::strerror(errno), 0};
}

base::unique_fd open_below(int folder, const std::string& name) {
  return base::unique_fd(
      openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::vector<std::string> names_in(int folder) {
  std::vector<std::string> names;
  // It takes a descriptor of its own.
  const int own = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, close_stream> stream(own >= 0 ? fdopendir(own) : nullptr);
  if (!stream && own >= 0) ::close(own);
  while (const dirent* const one = stream ? readdir(stream.get()) : nullptr) {
    const std::string name = one->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

// A full disk fails all else that stands on it, the recording first: a part of it is left free.
bool has_room(int folder, uint64_t bytes) {
  struct statvfs disk {};
  if (fstatvfs(folder, &disk) != 0) return true;
  const uint64_t wanted = bytes / std::max<uint64_t>(disk.f_frsize, 1);
  return wanted + disk.f_blocks / kShareLeft < disk.f_bavail;
}

// So that those who seal beside it see what it is going to take. Not all file systems can.
bool is_reserved(int file, uint64_t bytes) {
  return fallocate(file, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(bytes)) == 0 ||
         errno == EOPNOTSUPP || errno == ENOSYS;
}

// Without a header, which takes as much as there are keys.
uint64_t least_sealed(uint64_t bytes) {
  return bytes + (bytes + kPieceBytes - 1) / kPieceBytes * kTagBytes;
}

outcome read_back(int file, const pace& limits, sealed_copy& to) {
  sha256 digest;
  uint64_t bytes = 0;
  std::string error;
  const auto add = [&](const char* piece, size_t size) {
    digest.add(piece, size);
    bytes += size;
    return !limits.stopped();
  };
  if (lseek(file, 0, SEEK_SET) != 0) return later("lseek");
  if (!read_all(file, add, error)) return {outcome::kLater, error, 0};
  if (limits.stopped()) return {outcome::kStopped, "stopped", 0};
  to.bytes = bytes;
  to.sha256 = digest.hex();
  return {};
}

}  // namespace

std::string digest_of_keys(const target_settings& target) {
  if (!target.is_sealed()) return "";
  std::vector<std::string> keys = target.encrypt_for;
  std::sort(keys.begin(), keys.end());
  std::string all;
  for (const std::string& key : keys) all += key + "\n";
  return sha256_of(all);
}

base::unique_fd sealed_copies::open_folder(const std::string& target, bool make,
                                           std::string& error) const {
  base::unique_fd at(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const std::string& name : {std::string(kFolderName), target}) {
    if (!at.valid()) break;
    const bool is_new = make && mkdirat(at.get(), name.c_str(), 0777) == 0;
    // Or a power cut could take it away again, with what was noted to stand in it.
    std::string fault;
    if (is_new && !sync_folder(at.get(), fault)) at.reset();
    if (at.valid()) at = open_below(at.get(), name);
  }
  if (!at.valid()) {
    error = folder_ + "/" + kFolderName + "/" + target + ": " + std::strerror(errno);
  }
  return at;
}

outcome sealed_copies::make(const target_settings& target, const std::string& name, int plain,
                            const delivery_settings& settings, const pace& limits,
                            sealed_copy& made) const {
  std::string error;
  const base::unique_fd folder = open_folder(target.name, true, error);
  if (!folder.valid()) return {outcome::kLater, error, 0};
  const std::string whole = name + kSealedEnding;
  const std::string part = whole + kPartEnding;
  const std::optional<stamp> is = stamp_of(plain);
  if (!is) return later("fstat " + name);
  const uint64_t wanted = least_sealed(is->bytes) + kHeadBytes;
  if (!has_room(folder.get(), wanted)) {
    return {outcome::kLater, "no room for a sealed copy of " + std::to_string(is->bytes) + " bytes",
            0};
  }
  unlinkat(folder.get(), part.c_str(), 0);
  sealed_copy fresh;
  fresh.file.reset(
      openat(folder.get(), part.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fresh.file.valid()) return later("open " + part);
  const auto fill = [&]() -> outcome {
    if (lseek(plain, 0, SEEK_SET) != 0) return later("lseek");
    if (!is_reserved(fresh.file.get(), wanted)) return later("fallocate " + part);
    outcome sealed =
        seal(settings.age, target.encrypt_for, plain, fresh.file.get(), settings.stall, limits);
    if (sealed.is != outcome::kDone) return sealed;
    // What isn't needed of the reservation goes back.
    struct stat written {};
    if (fstat(fresh.file.get(), &written) != 0 || ftruncate(fresh.file.get(), written.st_size) != 0)
      return later("ftruncate " + part);
    if (fsync(fresh.file.get()) != 0) return later("fsync " + part);
    if (outcome read = read_back(fresh.file.get(), limits, fresh); read.is != outcome::kDone) {
      return read;
    }
    // With `keep` the file itself goes once the target has the copy.
    if (fresh.bytes < least_sealed(is->bytes)) {
      return {outcome::kLater, settings.age + " ended well, and wrote too little", 0};
    }
    return {};
  };
  outcome filled = fill();
  if (filled.is == outcome::kDone &&
      renameat(folder.get(), part.c_str(), folder.get(), whole.c_str()) != 0) {
    filled = later("rename " + part);
  }
  if (filled.is != outcome::kDone) {
    // A full disk isn't kept full.
    unlinkat(folder.get(), part.c_str(), 0);
    return filled;
  }
  if (!sync_folder(folder.get(), error)) {
    // Nobody has noted it.
    unlinkat(folder.get(), whole.c_str(), 0);
    return {outcome::kLater, folder_ + "/" + kFolderName + ": " + error, 0};
  }
  made = std::move(fresh);
  return {};
}

outcome sealed_copies::open(const std::string& target, const std::string& name, uint64_t bytes,
                            const std::string& sha256, const pace& limits,
                            sealed_copy& found) const {
  std::string error;
  const base::unique_fd folder = open_folder(target, false, error);
  if (!folder.valid()) return {outcome::kRefused, error, 0};
  sealed_copy there;
  there.file.reset(openat(folder.get(), (name + kSealedEnding).c_str(),
                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  const std::optional<stamp> is = there.file.valid() ? stamp_of(there.file.get()) : std::nullopt;
  if (!is || is->bytes != bytes) return {outcome::kRefused, "it isn't there as it was made", 0};
  if (outcome read = read_back(there.file.get(), limits, there); read.is != outcome::kDone) {
    if (read.is == outcome::kLater) read.is = outcome::kRefused;  // it can't be read any more
    return read;
  }
  if (there.sha256 != sha256) return {outcome::kRefused, "it is damaged", 0};
  found = std::move(there);
  return {};
}

void sealed_copies::remove(const std::string& target, const std::string& name) const {
  std::string ignored;
  const base::unique_fd folder = open_folder(target, false, ignored);
  if (folder.valid()) unlinkat(folder.get(), (name + kSealedEnding).c_str(), 0);
}

void sealed_copies::keep_only(const std::set<std::pair<std::string, std::string>>& in_use) const {
  std::set<std::pair<std::string, std::string>> wanted;
  for (const auto& [target, name] : in_use) wanted.insert({target, name + kSealedEnding});
  const base::unique_fd at(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const base::unique_fd all = at.valid() ? open_below(at.get(), kFolderName) : base::unique_fd();
  if (!all.valid()) return;
  for (const std::string& target : names_in(all.get())) {
    const base::unique_fd of = open_below(all.get(), target);
    if (!of.valid()) continue;
    for (const std::string& name : names_in(of.get())) {
      if (wanted.count({target, name}) == 0) unlinkat(of.get(), name.c_str(), 0);
    }
  }
  remove_empty_folders();
}

void sealed_copies::remove_empty_folders() const {
  const base::unique_fd at(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const base::unique_fd all = at.valid() ? open_below(at.get(), kFolderName) : base::unique_fd();
  if (!all.valid()) return;
  // Those that hold something stay, by themselves.
  for (const std::string& target : names_in(all.get())) {
    unlinkat(all.get(), target.c_str(), AT_REMOVEDIR);
  }
  unlinkat(at.get(), kFolderName, AT_REMOVEDIR);
}

}  // namespace zelta::deliver
