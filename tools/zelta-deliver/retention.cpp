// SPDX-License-Identifier: Apache-2.0
#include "retention.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include <unistd.h>

#include "disk.h"

namespace zelta::deliver {
namespace {

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
  const bool free = folder.saved() && !awaits_hook(folder.state());
  for (const auto& [name, one] : folder.state().files) {
    if (one.deleted_utc_ms != 0 || !is_media(name, one)) continue;
    const std::optional<stamp> is = stamp_of(folder.path(name));
    if (!is) continue;
    bytes += is->bytes;
    if (!free || !one.confirmed() || !(*is == one.is)) continue;
    int64_t last = 0;
    for (const auto& [target, shipped] : one.targets) {
      last = std::max(last, shipped.confirmed_utc_ms);
    }
    may_go.push_back({&folder, name, last, is->bytes});
  }
  return bytes;
}

}  // namespace

std::vector<deletion> clean_up(const std::vector<std::unique_ptr<consignment>>& folders,
                               const delivery_settings& settings, int64_t now_ms,
                               int64_t& next_ms) {
  std::vector<deletion> done;
  next_ms = 0;
  const bool keeps_all = settings.keep.count() < 0 && settings.quota_bytes == 0;
  if (keeps_all) return done;
  std::vector<candidate> may_go;
  uint64_t bytes = 0;
  for (const auto& folder : folders) bytes += gather(*folder, may_go);
  std::stable_sort(may_go.begin(), may_go.end(), [](const candidate& a, const candidate& b) {
    return a.confirmed_ms < b.confirmed_ms;
  });
  std::set<consignment*> touched;
  for (const candidate& one : may_go) {
    const int64_t due_ms = one.confirmed_ms + int64_t{settings.keep.count()} * 1000;
    const bool old = settings.keep.count() >= 0 && due_ms <= now_ms;
    const bool crowded = settings.quota_bytes > 0 && bytes > settings.quota_bytes;
    if (!old && !crowded) {
      if (settings.keep.count() >= 0) next_ms = due_ms;
      break;
    }
    deletion made{one.of->folder(), one.file, one.bytes, ""};
    if (unlink(one.of->path(one.file).c_str()) == 0) {
      bytes -= one.bytes;
      one.of->file(one.file).deleted_utc_ms = now_ms;
      touched.insert(one.of);
    } else {
      made.error = std::strerror(errno);
    }
    done.push_back(made);
  }
  // Died before this: the next scan finds them gone, and knows that they were confirmed.
  for (consignment* const folder : touched) folder->save();
  return done;
}

}  // namespace zelta::deliver
