// SPDX-License-Identifier: Apache-2.0
// A mounted folder: a copy under a temporary name, synced and renamed, so that under a file's name
// there is all of it or nothing.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
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

 private:
  // An unmounted folder is one that isn't there, and is never made.
  outcome is_there() const;
  outcome make_folders(const std::string& path) const;
  outcome copy(const parcel& of, const std::string& beside) const;

  const target_settings& settings_;
  pace& limits_;
};

outcome failed(const std::string& call) {
  return {outcome::kLater, call + ": " + std::strerror(errno), 0};
}

outcome folder_target::is_there() const {
  std::error_code error;
  if (std::filesystem::is_directory(settings_.path, error)) return {};
  return {outcome::kLater, settings_.path + " isn't there; is it mounted?", 0};
}

sight folder_target::look(http_client&, const parcel& of, bool thorough) const {
  if (outcome there = is_there(); there.is != outcome::kDone) return {presence::kUnknown, there};
  const std::string path = settings_.path + "/" + of.remote;
  const base::unique_fd file = open_plain(path);
  if (!file.valid() && (errno == ENOENT || errno == ENOTDIR)) return {presence::kAbsent, {}};
  if (!file.valid()) return {presence::kUnknown, failed("open " + path)};
  const auto is = stamp_of(file.get());
  if (!is || is->bytes != of.is.bytes) return {presence::kOther, {}};
  if (!thorough) return {presence::kSame, {}};
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
  return {digest.hex() == of.sha256 ? presence::kSame : presence::kOther, {}};
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
    return limits_.take(size) && write_all(to.get(), bytes, size, fault);
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
  if (rename(beside.c_str(), path.c_str()) != 0) return failed("rename " + beside);
  std::string error;
  if (!sync_folder(folder_of(path), error)) return {outcome::kLater, error, 0};
  return {};
}

}  // namespace

std::unique_ptr<target> make_folder_target(const target_settings& settings, pace& limits) {
  return std::make_unique<folder_target>(settings, limits);
}

}  // namespace zelta::deliver
