// SPDX-License-Identifier: Apache-2.0
#include "folder_reader.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <utility>

#include <sys/stat.h>

namespace zelta::view {
namespace {

constexpr size_t kMostMessages = 20'000;
// A recorder writes five times a second while media comes, and sound beside a stopped picture a
// little later. The clock of a disk of elsewhere may be so much ahead.
constexpr int64_t kStillWrittenMs = 15'000;

std::string identity_of(const std::string& path) {
  struct stat status {};
  std::ostringstream made;
  if (lstat(path.c_str(), &status) == 0) {
    made << status.st_dev << ' ' << status.st_ino << ' ' << status.st_size << ' '
         << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec;
  }
  made << '\n';
  return made.str();
}

file_state state_of(const std::string& folder, const recordings::media_file& file,
                    int64_t now_utc_ms) {
  struct stat status {};
  if (lstat((folder + file.name).c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_size == 0) {
    return file_state::kGone;
  }
  // Of those that a file system may hold, these can be counted in milliseconds.
  const int64_t changed_s = std::clamp<int64_t>(status.st_mtim.tv_sec, 0, int64_t{1} << 43U);
  const int64_t changed_ms = changed_s * 1000 + status.st_mtim.tv_nsec / 1'000'000;
  const int64_t age_ms = now_utc_ms - changed_ms;
  const bool is_new = age_ms < kStillWrittenMs && age_ms > -kStillWrittenMs;
  return file.closed.empty() && is_new ? file_state::kWritten : file_state::kThere;
}

}  // namespace

folder_reader::folder_reader(std::string folder) : folder_(std::move(folder)) {}

void folder_reader::read(const std::string& name, manifest_seen& seen) const {
  seen = {};
  seen.facts = recordings::read_manifest(folder_, name, seen.errors);
  if (seen.facts) {
    seen.messages = recordings::read_messages(folder_, name, kMostMessages, seen.errors);
  }
}

const folder_view& folder_reader::look(int64_t now_utc_ms) {
  std::vector<std::string> errors;
  // What is thrown on the way has everything read again.
  const std::map<std::string, std::string> before = std::exchange(identities_, {});
  std::map<std::string, std::string> identities;
  std::map<std::string, manifest_seen> seen;
  std::string state;
  for (const std::string& name : recordings::find_manifests(folder_, errors)) {
    // Before it is read: what changes meanwhile is read again the next time.
    const std::string identity =
        identity_of(folder_ + name) + identity_of(folder_ + recordings::message_log_of(name));
    manifest_seen& one = seen[name];
    const auto known = before.find(name);
    if (known != before.end() && known->second == identity) {
      one = std::move(seen_[name]);
    } else {
      read(name, one);
    }
    one.states.clear();
    state += name;
    state += '\n';
    state += identity;
    if (one.facts) {
      for (const auto& file : one.facts->files) {
        one.states.push_back(state_of(folder_, file, now_utc_ms));
        state += std::to_string(static_cast<int>(one.states.back()));
      }
    }
    identities[name] = identity;
  }
  for (const std::string& error : errors) state += error;
  identities_ = std::move(identities);
  seen_ = std::move(seen);
  if (state != state_) {
    view_ = view_of(folder_, seen_, errors);
    state_ = std::move(state);
  }
  return view_;
}

folder_view look_at(const std::string& folder, int64_t now_utc_ms) {
  return folder_reader(folder).look(now_utc_ms);
}

int64_t wall_clock_ms() {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace zelta::view
