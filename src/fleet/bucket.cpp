// SPDX-License-Identifier: Apache-2.0
#include "fleet/bucket.h"

namespace zelta::fleet {
namespace {

constexpr int64_t kNanosecondsAMs = 1'000'000;
constexpr int64_t kWatchMs = 200;

stored stored_of(kvEntry* entry) {
  stored made;
  made.key = kvEntry_Key(entry);
  const auto* const bytes = static_cast<const char*>(kvEntry_Value(entry));
  if (bytes != nullptr) made.value.assign(bytes, static_cast<size_t>(kvEntry_ValueLen(entry)));
  made.revision = kvEntry_Revision(entry);
  made.utc_ms = kvEntry_Created(entry) / kNanosecondsAMs;
  made.deleted = kvEntry_Operation(entry) != kvOp_Put;
  return made;
}

}  // namespace

std::string bucket::words(const std::string& key, natsStatus status) const {
  return fault_text(name_ + (key.empty() ? "" : ": " + key), status, denied_);
}

std::optional<stored> bucket::get(const std::string& key, std::string& error) const {
  error.clear();
  value_ptr found;
  const natsStatus status = kvStore_Get(out(found), kv_.get(), key.c_str());
  if (status == NATS_OK) return stored_of(found.get());
  if (status != NATS_NOT_FOUND) error = words(key, status);
  return std::nullopt;
}

change bucket::update(const std::string& key, const std::string& value, uint64_t& revision,
                      std::string& error) const {
  const auto size = static_cast<int>(value.size());
  uint64_t made = 0;
  // A key that was deleted has a revision, too, which kvStore_Create() knows about.
  const natsStatus status =
      revision == 0 ? kvStore_Create(&made, kv_.get(), key.c_str(), value.data(), size)
                    : kvStore_Update(&made, kv_.get(), key.c_str(), value.data(), size, revision);
  if (status == NATS_OK) {
    revision = made;
    return change::kDone;
  }
  error = words(key, status);
  // The library tells a wrong revision by no status of its own.
  std::string other;
  const std::optional<stored> now = get(key, other);
  if (!other.empty()) return change::kFailed;
  const uint64_t there = now ? now->revision : 0;
  // A server that is behind knows an older one.
  return there > revision ? change::kOutdated : change::kFailed;
}

bool bucket::put(const std::string& key, const std::string& value, std::string& error) const {
  const natsStatus status =
      kvStore_Put(nullptr, kv_.get(), key.c_str(), value.data(), static_cast<int>(value.size()));
  if (status == NATS_OK) return true;
  error = words(key, status);
  return false;
}

// Any server may be chosen to tell what there is, also one that is gone, for as long as the others
// hope for it: nobody answers then, and the next time it may be another one.
natsStatus bucket::begin_watch(watcher_ptr& to) const {
  constexpr int kMostTries = 3;
  natsStatus status = NATS_TIMEOUT;
  for (int at = 0; at < kMostTries && status == NATS_TIMEOUT && denied_.latest().empty(); ++at) {
    status = kvStore_WatchAll(out(to), kv_.get(), nullptr);
  }
  return status;
}

std::vector<stored> bucket::all(std::string& error) const {
  std::vector<stored> found;
  bool told = false;
  watcher_ptr watcher;
  natsStatus status = begin_watch(watcher);
  while (status == NATS_OK && !told) {
    value_ptr next;
    status = kvWatcher_Next(out(next), watcher.get(), kWatchMs * 25);
    if (status != NATS_OK) break;
    told = next == nullptr;
    if (next != nullptr && kvEntry_Operation(next.get()) == kvOp_Put) {
      found.push_back(stored_of(next.get()));
    }
  }
  if (status != NATS_OK) error = words("", status);
  return found;
}

void bucket::watch(const std::atomic<bool>& stop, const std::function<void(const stored*)>& tell,
                   std::string& error) const {
  watcher_ptr watcher;
  natsStatus status = begin_watch(watcher);
  if (status != NATS_OK) {
    error = words("", status);
    return;
  }
  while ((status == NATS_OK || status == NATS_TIMEOUT) && !stop.load(std::memory_order_acquire)) {
    value_ptr next;
    status = kvWatcher_Next(out(next), watcher.get(), kWatchMs);
    if (status != NATS_OK) continue;
    if (next == nullptr) {
      tell(nullptr);
    } else {
      const stored one = stored_of(next.get());
      tell(&one);
    }
  }
  if (status != NATS_OK && status != NATS_TIMEOUT) error = words("", status);
}

std::vector<stored> bucket::history(const std::string& key, std::string& error) const {
  std::vector<stored> found;
  kvEntryList list{};
  const natsStatus status = kvStore_History(&list, kv_.get(), key.c_str(), nullptr);
  for (int at = 0; at < list.Count; ++at) found.push_back(stored_of(list.Entries[at]));
  kvEntryList_Destroy(&list);
  if (status != NATS_OK && status != NATS_NOT_FOUND) error = words(key, status);
  return found;
}

}  // namespace zelta::fleet
