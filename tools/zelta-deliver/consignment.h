// SPDX-License-Identifier: Apache-2.0
// One recording folder while it is delivered: what of it may go now, and what an attempt's outcome
// means for it. Carries nothing itself.
//
// Not thread-safe: the courier's mutex is held around every call. What changes the state says so to
// itself: saved() is false from then on until save().
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "ledger.h"
#include "sealed_copies.h"
#include "settings.h"
#include "target.h"

namespace zelta::deliver {

class consignment {
 public:
  // Of a folder whose deliveries this process has the lock of: sealed copies that nobody waits for
  // are removed. `settings` outlives it.
  consignment(std::string folder, base::unique_fd lock, ledger state,
              const delivery_settings& settings);

  // Looks into the folder: new files become pending, what changed or is gone is noticed. Recorders
  // that died for good leave a journal: with `left_over` such a recording is over, too, and media
  // that no manifest lists goes as well. Errors are of manifests and names.
  void scan(bool left_over, std::vector<std::string>& errors);
  void retry_dead();

  // What may be sent to a target now, media first; each is in flight from then on, until it is told
  // of below. Targets by their place in the settings.
  struct errand {
    std::string file;
    size_t target = 0;
  };
  std::vector<errand> take_due(size_t target, int64_t now_ms, size_t most);
  // Until something that may go there, and isn't in flight, is due; empty: nothing is to go.
  std::optional<int64_t> wait_ms(size_t target, int64_t now_ms) const;

  const entry& file(const std::string& name) const { return state_.files.at(name); }
  // What the manifest says that a closed file holds, where it does.
  struct checksum {
    uint64_t bytes = 0;
    uint32_t crc32 = 0;
  };
  std::optional<checksum> checksum_of(const std::string& name) const;
  const shipment& at(const errand& of) const;

  // Steps of a flight.
  void set_digest(const errand& of, const std::string& sha256);
  void set_sending(const errand& of);
  void set_sent(const errand& of);
  void set_upload(const errand& of, const shipment& as);
  // Something else came to stand in its place.
  void disown(const errand& of);
  // A copy that is to go, and stands ready. Nothing of another one is gone on with.
  void set_sealed(const errand& of, uint64_t bytes, const std::string& sha256);
  // The copy goes, once that is on disk; the next try makes another one.
  void give_up_sealed(const errand& of);
  // These end the flight.
  void confirm(const errand& of, int64_t now_ms);
  // The time until the next try, or none: it was stopped, or is a dead letter.
  void fail(const errand& of, const outcome& why, int64_t now_ms, uint32_t random);
  void bury(const errand& of, const std::string& why);
  void put_back(const errand& of);
  // The file isn't any more what was to be sent. What still is to go of it, wherever, goes a second
  // later: what changes all the time would keep a processor busy.
  void changed(const errand& of, int64_t now_ms);

  void set_deleted(const std::string& name, int64_t now_ms);
  // Every target has it, and that is on disk.
  bool is_safe(const std::string& name) const;

  // The first notice for a hook, or for the webhook, if it is due; in flight until it is told of.
  std::optional<notice> take_notice(bool for_hook, int64_t now_ms);
  std::optional<int64_t> notice_wait_ms(bool for_hook, int64_t now_ms) const;
  void notice_done(bool for_hook);
  // Its `attempts` count those that failed by what it is told to.
  void notice_failed(bool for_hook, int64_t now_ms, std::chrono::milliseconds wait);
  void notice_postponed(bool for_hook, int64_t now_ms, std::chrono::milliseconds wait);
  void notice_put_back(bool for_hook) { noticing_[for_hook ? 1 : 0] = false; }
  // Tells of the session's end once all of it is settled, if it wasn't told yet.
  void announce_session();

  // False with `fault()` when it can't be kept. Costs nothing when nothing changed.
  bool save();
  // The same, but for what whoever comes after a kill finds out by looking: of large states seldom
  // enough to take a small part of the time. `now_ms` is steady_ms().
  bool save_lazily(int64_t now_ms);
  std::optional<int64_t> lazy_save_ms() const;  // the moment at which that is due, if it is
  // What is in the ledger is on disk.
  bool saved() const { return !is_changed_; }
  const std::string& fault() const { return fault_; }
  // Nobody has put another folder in its place, or taken it away.
  bool in_place() const;

  const std::string& folder() const { return folder_; }
  const ledger& state() const { return state_; }
  // Copies for a target that stand ready.
  size_t sealed(size_t target) const;
  bool is_over() const { return over_; }
  bool in_flight() const { return !flying_.empty() || noticing_[0] || noticing_[1]; }
  bool has_pending() const;  // something is still to be sent or told
  bool has_dead() const;
  // Dead letters since the last call, which nobody was told of.
  std::vector<errand> take_buried() { return std::exchange(buried_, {}); }
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

 private:
  // A target, a rank and a name of what isn't settled there.
  using place = std::tuple<size_t, rank, std::string>;

  void note(const std::string& name, rank order, std::vector<std::string>& errors);
  void note_other(const std::string& name, const std::optional<stamp>& is);
  void settle_targets(const std::string& name, entry& of);
  void index(const std::string& name, const entry& of);
  void fit_forms(entry& of);
  void drop_sealed(const errand& of);
  void remove_spent();
  bool is_flying(const std::string& name) const;
  // The range of what may go to a target: of the first rank that isn't settled there.
  std::pair<std::set<place>::const_iterator, std::set<place>::const_iterator> open_at(
      size_t target) const;
  int64_t wait_until(int64_t next_utc_ms, int64_t now_ms) const;
  shipment& change(const errand& of);
  void touch(const std::string& name);
  void announce_file(const std::string& name);
  void announce(const std::string& kind, const std::string& name, const shipment* about);
  void add_notice(const std::string& kind, const std::string& body, bool for_hook);

  const std::string folder_;
  const base::unique_fd lock_;
  ledger state_;
  const delivery_settings& settings_;
  bool over_ = false;
  bool is_changed_ = false;
  bool is_due_ = false;        // by more than what another scan, or a look at the target, finds out
  bool maybe_settled_ = true;  // since the session was looked at for its end
  int64_t lazy_from_ms_ = 0;   // of steady_ms()
  std::set<std::string> unsaved_;  // confirmed, which isn't on disk yet
  std::string fault_;
  std::map<std::string, checksum> checksums_;
  const sealed_copies copies_;
  std::set<std::pair<std::string, size_t>> spent_;   // sealed copies, once that is on disk
  bool maybe_empty_ = false;                         // the folders of some
  std::set<std::pair<size_t, std::string>> sealed_;  // what has a copy, by its target
  std::set<place> open_;
  std::set<std::pair<std::string, size_t>> flying_;
  std::vector<errand> buried_;
  bool noticing_[2] = {false, false};  // webhook, hook
};

}  // namespace zelta::deliver
