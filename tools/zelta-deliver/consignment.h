// SPDX-License-Identifier: Apache-2.0
// One recording folder while it is delivered: what of it may go now, and what an attempt's outcome
// means for it. Carries nothing itself.
//
// Not thread-safe: the courier's mutex is held around every call.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "ledger.h"
#include "settings.h"
#include "target.h"

namespace zelta::deliver {

class consignment {
 public:
  // Of a folder whose deliveries this process has the lock of. `settings` outlives it.
  consignment(std::string folder, base::unique_fd lock, ledger state,
              const delivery_settings& settings);

  // Looks into the folder: new files become pending, what changed or is gone is noticed. Recorders
  // that died for good leave a journal: with `left_over` such a recording is over, too. Errors are
  // of manifests.
  void scan(bool left_over, std::vector<std::string>& errors);
  void retry_dead();

  // What may be sent now, media first; each is in flight from then on, until it is told of below.
  struct errand {
    std::string file;
    size_t target = 0;  // its place in the settings
  };
  std::vector<errand> take_due(int64_t now_ms, size_t most,
                               const std::vector<int64_t>& targets_held_until_ms);
  // The earliest moment at which something is due that isn't now; empty: nothing waits for a time.
  std::optional<int64_t> next_due_ms(const std::vector<int64_t>& targets_held_until_ms) const;

  entry& file(const std::string& name) { return state_.files.at(name); }
  shipment& at(const errand& of);
  // These end the flight.
  void confirm(const errand& of, int64_t now_ms);
  // The time until the next try, or none: it was stopped, or is a dead letter.
  void fail(const errand& of, const outcome& why, int64_t now_ms, uint32_t random);
  void bury(const errand& of, const std::string& why);
  void put_back(const errand& of);
  // The file isn't any more what was to be sent.
  void changed(const errand& of);

  // The first notice for a hook, or for the webhook, if it is due; in flight until it is told of.
  std::optional<notice> take_notice(bool for_hook, int64_t now_ms);
  void notice_done(bool for_hook);
  void notice_failed(bool for_hook, int64_t now_ms, std::chrono::milliseconds wait);
  void notice_put_back(bool for_hook) { noticing_[for_hook ? 1 : 0] = false; }
  // Tells of the session's end once all of it is settled, if it wasn't told yet.
  void announce_session();

  bool save();  // false with `fault()` when it can't be kept
  // What is in the ledger is on disk.
  bool saved() const { return saved_; }
  const std::string& fault() const { return fault_; }

  const std::string& folder() const { return folder_; }
  ledger& state() { return state_; }
  const ledger& state() const { return state_; }
  bool is_over() const { return over_; }
  bool in_flight() const { return !flying_.empty() || noticing_[0] || noticing_[1]; }
  bool has_pending() const;  // something is still to be sent or told
  bool has_dead() const;
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

 private:
  void note(const std::string& name, rank order);
  void settle_targets(entry& of) const;
  bool may_go(const entry& of, const std::string& target) const;
  void announce(const std::string& kind, const std::string& name, const shipment* about);
  void add_notice(const std::string& kind, const std::string& body, bool for_hook);

  const std::string folder_;
  const base::unique_fd lock_;
  ledger state_;
  const delivery_settings& settings_;
  bool over_ = false;
  bool saved_ = false;
  std::string fault_;
  std::set<std::pair<std::string, size_t>> flying_;
  bool noticing_[2] = {false, false};  // webhook, hook
};

}  // namespace zelta::deliver
