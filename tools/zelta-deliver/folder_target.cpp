// SPDX-License-Identifier: Apache-2.0
// A mounted folder: a copy under a temporary name, synced and renamed, so that under a file's name
// there is all of it or nothing.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "digest.h"
#include "disk.h"
#include "target.h"

namespace zelta::deliver {
namespace {

class folder_target : public target {
 public:
  folder_target(const target_settings& settings, pace& limits)
      : settings_(settings), limits_(limits) {}

  sight look(http_client& by, const parcel& of, bool thorough) const override;
  outcome send(http_client& by, const parcel& of, shipment& at,
               const std::function<bool()>& save) const override;
  bool takes_whole() const override { return true; }

 private:
  // It is never made. One that is to be mounted may be there without that, on the wrong disk.
  outcome is_there() const;
  // What is confirmed has to outlive a power cut, whoever wrote it and was killed then.
  outcome sync_all(int file, const std::string& path) const;
  outcome make_folders(const std::string& path) const;
  outcome copy(const parcel& of, const std::string& beside) const;

  const target_settings& settings_;
  pace& limits_;
};

outcome failed(const std::string& call) {
  return {outcome::kLater, call + ": " + std::strerror(errno), 0};
}

bool is_mounted(const std::string& path) {
  struct statx is {};
  if (statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, STATX_TYPE, &is) != 0) return false;
  return (is.stx_attributes_mask & is.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

bool is_same_file(int a, int b) {
  struct stat one {};
  struct stat other {};
  return fstat(a, &one) == 0 && fstat(b, &other) == 0 && one.st_dev == other.st_dev &&
         one.st_ino == other.st_ino;
}

// Without replacing anything. Where the file system can't do that, nothing was seen there before.
bool rename_to_absent(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  return rename(from.c_str(), to.c_str()) == 0;
}

outcome folder_target::is_there() const {
  std::error_code error;
  if (!settings_.mount.empty() && !is_mounted(settings_.mount)) {
    return {outcome::kLater, settings_.mount + " isn't mounted", 0, true};
  }
  if (std::filesystem::is_directory(settings_.path, error)) return {};
  return {outcome::kLater, settings_.path + " isn't there; is it mounted?", 0, true};
}

outcome folder_target::sync_all(int file, const std::string& path) const {
  if (fsync(file) != 0) return failed("fsync " + path);
  std::string error;
  for (std::string folder = folder_of(path); folder.size() >= settings_.path.size();
       folder = folder_of(folder)) {
    if (!sync_folder(folder, error)) return {outcome::kLater, error, 0};
    if (folder == settings_.path) break;
  }
  return {};
}

sight folder_target::look(http_client&, const parcel& of, bool thorough) const {
  if (outcome there = is_there(); there.is != outcome::kDone) return {presence::kUnknown, there};
  const std::string path = settings_.path + "/" + of.remote;
  const base::unique_fd file = open_plain(path);
  if (!file.valid() && (errno == ENOENT || errno == ENOTDIR)) return {presence::kAbsent, {}};
  if (!file.valid()) return {presence::kUnknown, failed("open " + path)};
  const auto is = stamp_of(file.get());
  if (is && is_same_file(file.get(), of.file)) {
    return {presence::kUnknown, {outcome::kRefused, path + " is the recording's own file", 0}};
  }
  if (!is || is->bytes != of.is.bytes) return {presence::kOther, {}};
  const auto same = [&]() -> sight {
    outcome synced = sync_all(file.get(), path);
    const bool done = synced.is == outcome::kDone;
    return {done ? presence::kSame : presence::kUnknown, std::move(synced)};
  };
  if (!thorough) return same();
  sha256 digest;
  std::string error;
  const auto add = [&](const char* bytes, size_t size) {
    digest.add(bytes, size);
    return !limits_.stopped();
  };
  if (!read_all(file.get(), add, error)) {
    return {presence::kUnknown, {outcome::kLater, path + ": " + error, 0}};
  }
  if (limits_.stopped()) return {presence::kUnknown, {outcome::kStopped, "stopped", 0}};
  return digest.hex() == of.sha256 ? same() : sight{presence::kOther, {}};
}

// Each one synced into the one above it, or a power cut could take it away again.
outcome folder_target::make_folders(const std::string& path) const {
  const std::string folders = folder_of(path);
  for (size_t slash = folders.find('/', settings_.path.size() + 1);;
       slash = folders.find('/', slash + 1)) {
    const std::string one = folders.substr(0, slash);
    std::error_code error;
    std::string fault;
    if (std::filesystem::create_directory(one, error) && !sync_folder(folder_of(one), fault)) {
      return {outcome::kLater, fault, 0};
    }
    if (error) return {outcome::kLater, "mkdir " + one + ": " + error.message(), 0};
    if (slash == std::string::npos) return {};
  }
}

outcome folder_target::copy(const parcel& of, const std::string& beside) const {
  const base::unique_fd to(
      open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666));
  if (!to.valid()) return failed("open " + beside);
  if (lseek(of.file, 0, SEEK_SET) != 0) return failed("lseek");
  std::string error;
  std::string fault;
  const auto pass_on = [&](const char* bytes, size_t size) {
    for (size_t done = 0, piece = 0; done < size; done += piece) {
      piece = limits_.piece(size - done);
      if (!limits_.take(piece) || !write_all(to.get(), bytes + done, piece, fault)) return false;
    }
    return true;
  };
  if (!read_all(of.file, pass_on, error) || !fault.empty()) {
    return {outcome::kLater, beside + ": " + error + fault, 0};
  }
  if (limits_.stopped()) return {outcome::kStopped, "stopped", 0};
  if (fsync(to.get()) != 0) return failed("fsync " + beside);
  return {};
}

outcome folder_target::send(http_client&, const parcel& of, shipment&,
                            const std::function<bool()>&) const {
  if (outcome there = is_there(); there.is != outcome::kDone) return there;
  const std::string path = settings_.path + "/" + of.remote;
  const std::string beside = path + ".part";
  if (outcome made = make_folders(path); made.is != outcome::kDone) return made;
  if (outcome copied = copy(of, beside); copied.is != outcome::kDone) {
    // A full disk isn't kept full; what can't be removed is overwritten by the next try.
    unlink(beside.c_str());
    return copied;
  }
  const bool is_named =
      of.replaces ? rename(beside.c_str(), path.c_str()) == 0 : rename_to_absent(beside, path);
  if (!is_named) {
    outcome refused = failed("rename " + beside);
    refused.occupied = errno == EEXIST;
    if (refused.occupied) unlink(beside.c_str());
    return refused;
  }
  std::string error;
  if (!sync_folder(folder_of(path), error)) return {outcome::kLater, error, 0};
  return {};
}

}  // namespace

std::unique_ptr<target> make_folder_target(const target_settings& settings, pace& limits) {
  return std::make_unique<folder_target>(settings, limits);
}

}  // namespace zelta::deliver
