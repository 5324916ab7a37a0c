// SPDX-License-Identifier: Apache-2.0
// One of the fleet's stores: texts by key, whose revisions decide who may replace them.
//
// Any thread; calls wait for the servers. What fails says why, in words.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fleet/handles.h"
#include "fleet/nats_faults.h"

namespace zelta::fleet {

// What became of a change that only holds for the revision that was known.
enum class change { kDone, kOutdated, kFailed };

struct stored {
  std::string key;
  std::string value;
  uint64_t revision = 0;
  int64_t utc_ms = 0;
  bool deleted = false;
};

class bucket {
 public:
  // Borrows what says why something failed.
  bucket(bucket_ptr made, std::string name, const violations& denied)
      : kv_(std::move(made)), name_(std::move(name)), denied_(denied) {}

  // Nothing, with an empty error, when there is none.
  std::optional<stored> get(const std::string& key, std::string& error) const;
  // `revision` is the one that is replaced (0: there must be none), and becomes the new one.
  change update(const std::string& key, const std::string& value, uint64_t& revision,
                std::string& error) const;
  bool put(const std::string& key, const std::string& value, std::string& error) const;
  // All that there is; in no order.
  std::vector<stored> all(std::string& error) const;
  // What there is, then what comes, until `stop`; a call with nothing says that all was told that
  // there was.
  void watch(const std::atomic<bool>& stop, const std::function<void(const stored*)>& tell,
             std::string& error) const;
  std::vector<stored> history(const std::string& key, std::string& error) const;

 private:
  std::string words(const std::string& key, natsStatus status) const;
  natsStatus begin_watch(watcher_ptr& to) const;

  const bucket_ptr kv_;
  const std::string name_;
  const violations& denied_;
};

}  // namespace zelta::fleet
