// SPDX-License-Identifier: Apache-2.0
// What became of each file of a recording folder at each target: the folder's delivery.json, which
// is replaced whole and synced at every step, so that whoever comes next goes on from there.
//
//   pending ─▶ sending ─▶ sent ─▶ confirmed
//      │          │         │
//      └──────────┴─────────┴─▶ failed: it stays what it is, and is tried again later, or ▶ dead
//
// Only --retry-dead makes a dead one pending, and a new version of what may be rewritten any.
//
// Not thread-safe. Only who holds the folder's lock may write its ledger.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "disk.h"

namespace zelta::deliver {

enum class stage {
  kPending,    // it is to be sent
  kSending,    // some or all of it may be there
  kSent,       // the target said that it took it
  kConfirmed,  // it was found there, whole
  kDead,       // it can't be delivered as it is; `error` says why
};

const char* name_of(stage at);

// One file at one target.
struct shipment {
  stage at = stage::kPending;
  int attempts = 0;  // failed in a row, whatever the cause
  int refusals = 0;  // of these, those that trying again hardly mends
  int64_t next_utc_ms = 0;
  int64_t confirmed_utc_ms = 0;
  std::string error;
  bool ours = false;  // what stands there under its name is of this file, and may be replaced
  // Of an upload in parts: what the target calls it, and what it calls each part that it has.
  std::string upload_id;
  uint64_t part_bytes = 0;
  std::vector<std::string> parts;  // with an upload of no `part_bytes`: it is only to be ended
  // Of what goes sealed: for which keys what was put there, or stands ready, is, by their digest;
  // and the copy that stands ready. Empty: it goes as it is; there is no copy.
  std::string sealed_for;
  std::string sealed_sha256;
  uint64_t sealed_bytes = 0;
};

enum class rank { kMedia, kBeside, kManifest };  // in this order at each target

struct entry {
  stamp is;            // of what is to be delivered
  std::string sha256;  // of that; empty: not yet known
  rank order = rank::kMedia;
  std::map<std::string, shipment> targets;
  bool announced = false;      // its confirmation, to hooks and webhook
  int64_t deleted_utc_ms = 0;  // 0: we haven't
  // As it is kept, to be written once for many saves; whoever changes anything else clears it.
  mutable std::string text;

  bool confirmed() const;
  bool dead() const;     // at one target at least
  bool settled() const;  // confirmed or dead at every one
};

// What the webhook is still to hear, or a hook is to run for, in this order.
struct notice {
  std::string id;    // the same at each try
  std::string body;  // JSON
  bool for_hook = false;
  std::string kind;  // "file", "session", "dead"
  int attempts = 0;
  int64_t next_utc_ms = 0;
};

struct ledger {
  std::string id;      // of this folder's deliveries
  std::string remote;  // what the folder is called at targets; fixed with the first file
  std::map<std::string, entry> files;
  std::string announced;  // the session as it was when its end was told: a digest
  std::deque<notice> notices;
  uint64_t next_notice = 1;
};

// What a file of the folder is called at targets. Logs of several machines that recorded one call
// after each other come together there, as their manifests do: each is called by the number of its
// machine's first manifest.
std::string remote_path(const ledger& of, const std::string& file);

constexpr const char* kLedgerName = "delivery.json";

// A new one with an id when there is none. Empty with `error` when it can't be read: a state that
// we don't understand must not be taken for none, or all would be sent again.
std::optional<ledger> load_ledger(const std::string& folder, std::string& error);
// Costs little for entries that didn't change. False with `error` when it can't be kept, or would
// be too large to be read.
bool save_ledger(const std::string& folder, const ledger& of, std::string& error);

// Holds a folder's deliveries as long as it lives; invalid, with `error` empty, when another
// process has them.
base::unique_fd lock_deliveries(const std::string& folder, std::string& error);
// Whether what `lock` holds still is the lock of what stands at `folder`.
bool still_locks(int lock, const std::string& folder);

}  // namespace zelta::deliver
