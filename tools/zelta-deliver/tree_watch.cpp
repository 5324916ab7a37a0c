// SPDX-License-Identifier: Apache-2.0
#include "tree_watch.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <sys/inotify.h>
#include <unistd.h>

#include "ledger.h"
#include "recordings/recording_folder.h"

namespace zelta::deliver {
namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE |
                             IN_ONLYDIR | IN_DONT_FOLLOW;

// What we write ourselves.
bool is_ours(const std::string& name) {
  return name.rfind(kLedgerName, 0) == 0 || name.rfind(".delivery", 0) == 0;
}

}  // namespace

tree_watch::tree_watch(const std::string& root, std::string& error)
    : root_(root), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!inotify_.valid()) {
    error = std::string("inotify_init1: ") + std::strerror(errno);
    return;
  }
  bool incomplete = false;
  add(root, nullptr, incomplete);
  if (folders_.empty() || incomplete) {
    error = "inotify_add_watch under " + root + ": " + std::strerror(errno) +
            "; is it a folder, and fs.inotify.max_user_watches large enough?";
  }
}

// The watch comes before the look inside, so that what is made meanwhile is seen by one of them.
void tree_watch::add(const std::string& folder, std::set<std::string>* seen, bool& all) {
  const int watch = inotify_add_watch(inotify_.get(), folder.c_str(), kEvents);
  if (watch < 0) {
    // One that has gone already, or that isn't ours to read, as lost+found, is none to be watched.
    if (errno != ENOENT && errno != ENOTDIR && errno != EACCES) all = true;
    return;
  }
  folders_[watch] = folder;
  if (seen != nullptr) seen->insert(folder);
  std::error_code failed;
  std::filesystem::directory_iterator at(folder, failed);
  for (; !failed && at != std::filesystem::directory_iterator(); at.increment(failed)) {
    std::error_code ignored;
    const bool is_folder = at->is_directory(ignored) && !at->is_symlink(ignored);
    if (is_folder && !is_ours(at->path().filename().string())) {
      add(at->path().string(), seen, all);
    }
  }
}

// It went somewhere else, where it is watched under another name if at all.
void tree_watch::drop(const std::string& folder) {
  for (auto at = folders_.begin(); at != folders_.end();) {
    const std::string& one = at->second;
    if (one == folder || one.rfind(folder + "/", 0) == 0) {
      // It may be gone by now, and its watch with it.
      static_cast<void>(inotify_rm_watch(inotify_.get(), at->first));
      at = folders_.erase(at);
    } else {
      ++at;
    }
  }
}

std::set<std::string> tree_watch::take(bool& all) {
  std::set<std::string> seen;
  alignas(inotify_event) char events[16 * 1024];
  for (;;) {
    const ssize_t got = read(inotify_.get(), events, sizeof events);
    if (got <= 0) {
      if (got < 0 && errno == EINTR) continue;
      return seen;
    }
    for (ssize_t at = 0; at < got;) {
      inotify_event event{};
      std::memcpy(&event, events + at, sizeof event);
      const char* const name = events + at + sizeof event;
      at += static_cast<ssize_t>(sizeof event + event.len);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        // Folders may have come meanwhile.
        all = true;
        add(root_, &seen, all);
      }
      const auto folder = folders_.find(event.wd);
      if (folder == folders_.end()) continue;
      if ((event.mask & IN_IGNORED) != 0) {
        folders_.erase(folder);
        continue;
      }
      const std::string what = event.len > 0 ? name : "";
      if (is_ours(what)) continue;
      const std::string path = folder->second;
      std::string inner = path;
      inner.append("/").append(what);
      if ((event.mask & IN_ISDIR) != 0 && (event.mask & IN_MOVED_FROM) != 0) {
        drop(inner);
      }
      if ((event.mask & IN_ISDIR) != 0 && (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        add(inner, &seen, all);
      }
      seen.insert(path);
    }
  }
}

bool tree_watch::holds_recording(const std::string& folder) {
  std::error_code failed;
  std::filesystem::directory_iterator at(folder, failed);
  for (; !failed && at != std::filesystem::directory_iterator(); at.increment(failed)) {
    if (recordings::is_manifest_name(at->path().filename().string())) return true;
  }
  return false;
}

std::set<std::string> tree_watch::recordings_under(const std::string& root) {
  std::set<std::string> found;
  std::error_code failed;
  const auto options = std::filesystem::directory_options::skip_permission_denied;
  std::filesystem::recursive_directory_iterator at(root, options, failed);
  for (; !failed && at != std::filesystem::recursive_directory_iterator(); at.increment(failed)) {
    if (recordings::is_manifest_name(at->path().filename().string())) {
      found.insert(at->path().parent_path().string());
    }
  }
  return found;
}

}  // namespace zelta::deliver
