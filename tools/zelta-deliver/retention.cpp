// SPDX-License-Identifier: Apache-2.0
#include "retention.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "disk.h"

namespace zelta::deliver {
namespace {

constexpr int64_t kStuckMs = 60'000;

struct candidate {
  consignment* of;
  std::string file;
  int64_t confirmed_ms;
  uint64_t bytes;
};

bool is_media(const std::string& name, const entry& of) {
  return of.order == rank::kMedia || (name.size() > 4 && name.substr(name.size() - 4) == ".jpg");
}

bool awaits_hook(const ledger& of) {
  return std::any_of(of.notices.begin(), of.notices.end(),
                     [](const notice& one) { return one.for_hook; });
}

// Adds up what is there, and lists what of it may go.
uint64_t gather(consignment& folder, std::vector<candidate>& may_go) {
  uint64_t bytes = 0;
  const bool free = !awaits_hook(folder.state());
  for (const auto& [name, one] : folder.state().files) {
    for (const auto& [target, shipped] : one.targets) bytes += shipped.sealed_bytes;
    if (one.deleted_utc_ms != 0 || !is_media(name, one)) continue;
    std::string ignored;
    const std::optional<stamp> is = stamp_of(folder.path(name), ignored);
    if (!is) continue;
    bytes += is->bytes;
    if (!free || !folder.is_safe(name) || !(*is == one.is)) continue;
    int64_t last = 0;
    for (const auto& [target, shipped] : one.targets) {
      last = std::max(last, shipped.confirmed_utc_ms);
    }
    may_go.push_back({&folder, name, last, is->bytes});
  }
  return bytes;
}

}  // namespace

bool retention::is_through_with(const consignment& folder) const {
  if (keeps_all()) return true;
  const auto& files = folder.state().files;
  return std::all_of(files.begin(), files.end(), [this](const auto& one) {
    return one.second.deleted_utc_ms != 0 || !is_media(one.first, one.second) ||
           (settings_.quota_bytes == 0 && !one.second.confirmed());
  });
}

std::vector<deletion> retention::clean_up(const std::vector<consignment*>& folders,
                                          int64_t now_ms) {
  std::vector<deletion> done;
  wait_ms_.reset();
  if (keeps_all()) return done;
  std::vector<candidate> may_go;
  uint64_t bytes = 0;
  for (consignment* const folder : folders) bytes += gather(*folder, may_go);
  std::stable_sort(may_go.begin(), may_go.end(), [](const candidate& a, const candidate& b) {
    return a.confirmed_ms < b.confirmed_ms;
  });
  std::set<consignment*> touched;
  for (const candidate& one : may_go) {
    const int64_t due_ms = one.confirmed_ms + int64_t{settings_.keep.count()} * 1000;
    const bool old = settings_.keep.count() >= 0 && due_ms <= now_ms;
    const bool crowded = settings_.quota_bytes > 0 && bytes > settings_.quota_bytes;
    if (!old && !crowded) {
      if (settings_.keep.count() >= 0) {
        wait_ms_ = std::min(due_ms - now_ms, wait_ms_.value_or(due_ms - now_ms));
      }
      break;
    }
    const std::string path = one.of->path(one.file);
    if (unlink(path.c_str()) == 0) {
      bytes -= one.bytes;
      one.of->set_deleted(one.file, now_ms);
      touched.insert(one.of);
      stuck_.erase(path);
      done.push_back({one.of->folder(), one.file, one.bytes, ""});
      continue;
    }
    const int why = errno;
    wait_ms_ = kStuckMs;
    if (stuck_.insert(path).second) {
      done.push_back(
          {one.of->folder(), one.file, one.bytes, "unlink: " + std::string(std::strerror(why))});
    }
  }
  // Died before this: the next scan finds them gone, and knows that they were confirmed.
  for (consignment* const folder : touched) folder->save();
  return done;
}

}  // namespace zelta::deliver
