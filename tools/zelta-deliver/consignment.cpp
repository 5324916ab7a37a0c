// SPDX-License-Identifier: Apache-2.0
#include "consignment.h"

#include <algorithm>

#include <json/json.h>

#include "digest.h"
#include "disk.h"
#include "names.h"
#include "recordings/folder_state.h"
#include "recordings/recording_folder.h"

namespace zelta::deliver {
namespace {

constexpr int64_t kChangedMs = 1000;
// Nothing waits for longer, so a moment beyond is of a clock that was wrong.
constexpr int64_t kLongestWaitMs = int64_t{24} * 3600 * 1000;
// What lazy saves of more than a few files may take of the time is one part in so many.
constexpr size_t kFew = 200;
constexpr int64_t kSaveShare = 20;
constexpr int64_t kLaziestMs = 5000;
constexpr int64_t kFailedSaveMs = 1000;

bool is_settled(const shipment& of) {
  return of.at == stage::kConfirmed || of.at == stage::kDead;
}

// A new version of what may be rewritten: its place at the target stays ours. An upload in parts is
// of the old one, and to be ended: it has no size of parts any more.
void begin_anew(shipment& of) {
  shipment fresh;
  fresh.ours = of.ours;
  fresh.upload_id = of.upload_id;
  fresh.sealed_for = of.sealed_for;
  of = fresh;
}

std::string line_of(const Json::Value& body) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, body);
}

}  // namespace

consignment::consignment(std::string folder, base::unique_fd lock, ledger state,
                         const delivery_settings& settings)
    : folder_(std::move(folder)),
      lock_(std::move(lock)),
      state_(std::move(state)),
      settings_(settings),
      copies_(folder_) {
  std::set<std::pair<std::string, std::string>> ready;
  for (auto& [name, one] : state_.files) {
    fit_forms(one);
    index(name, one);
    for (const target_settings& target : settings_.targets) {
      const auto there = one.targets.find(target.name);
      const bool is_ready = there != one.targets.end() && !there->second.sealed_sha256.empty();
      if (is_ready) ready.insert({target.name, name});
    }
  }
  copies_.keep_only(ready);
}

// A target that is sealed now and wasn't, or the other way round, has its files under other names:
// what stands there isn't ours to replace, and nothing goes on with a part of it.
void consignment::fit_forms(entry& of) {
  for (const target_settings& target : settings_.targets) {
    const auto there = of.targets.find(target.name);
    if (there == of.targets.end()) continue;
    shipment& one = there->second;
    const bool has_put = one.ours || !one.upload_id.empty() || !one.sealed_for.empty();
    if (!has_put || one.sealed_for.empty() != target.is_sealed()) continue;
    shipment fresh;
    if (is_settled(one)) {
      fresh.at = one.at;
      fresh.confirmed_utc_ms = one.confirmed_utc_ms;
      fresh.error = one.error;
    }
    one = fresh;
    of.text.clear();
    is_changed_ = true;
  }
}

void consignment::scan(bool left_over, std::vector<std::string>& errors) {
  // Before the manifests are read, and after: what they hold then is final.
  const bool over = recordings::is_over(folder_, left_over);
  std::vector<std::string> faults;
  const std::vector<recordings::manifest> manifests = recordings::read_manifests(folder_, faults);
  over_ = over && faults.empty() && recordings::is_over(folder_, left_over);
  for (const recordings::manifest& one : manifests) {
    for (const recordings::media_file& file : one.files) {
      if (!file.closed.empty() || over_) note(file.name, rank::kMedia, faults);
      if (!file.closed.empty() && file.crc32) {
        checksums_[file.name] = {file.closed_bytes, *file.crc32};
      }
    }
  }
  // Targets may be others than they were for files that are noted no more, too.
  for (auto& [name, one] : state_.files) settle_targets(name, one);
  if (over_) {
    if (left_over) {
      for (const std::string& name : recordings::media_names(folder_)) {
        note(name, rank::kMedia, faults);
      }
    }
    for (const std::string& name : recordings::companion_names(folder_)) {
      note(name, rank::kBeside, faults);
    }
    for (const recordings::manifest& one : manifests) note(one.name, rank::kManifest, faults);
  }
  errors.insert(errors.end(), faults.begin(), faults.end());
}

std::optional<consignment::checksum> consignment::checksum_of(const std::string& name) const {
  const auto told = checksums_.find(name);
  return told != checksums_.end() ? std::optional(told->second) : std::nullopt;
}

void consignment::note(const std::string& name, rank order, std::vector<std::string>& errors) {
  if (!is_sound_name(name)) {
    errors.push_back(shown_name(name) +
                     " can't be delivered: its name isn't UTF-8, or has control "
                     "characters");
    return;
  }
  std::string fault;
  const std::optional<stamp> is = stamp_of(path(name), fault);
  if (!fault.empty()) {
    errors.push_back(fault);
    return;
  }
  const auto known = state_.files.find(name);
  if (known == state_.files.end()) {
    entry fresh;
    fresh.order = order;
    if (is) fresh.is = *is;
    state_.files[name] = fresh;
    touch(name);
  } else if (known->second.order != order) {
    for (size_t at = 0; at < settings_.targets.size(); ++at) {
      open_.erase({at, known->second.order, name});
    }
    known->second.order = order;
    touch(name);
  }
  entry& one = state_.files.at(name);
  settle_targets(name, one);
  if (one.deleted_utc_ms != 0) {
    if (!is) return;
    // It came again.
    one.deleted_utc_ms = 0;
    settle_targets(name, one);
    touch(name);
  }
  const bool is_same = is && *is == one.is;
  if (!is_same && !is_flying(name)) note_other(name, is);  // who carries it will notice
}

bool consignment::is_flying(const std::string& name) const {
  const auto first = flying_.lower_bound({name, 0});
  return first != flying_.end() && first->first == name;
}

void consignment::note_other(const std::string& name, const std::optional<stamp>& is) {
  entry& one = state_.files.at(name);
  if (!is && one.confirmed()) {
    // Deleted by whoever was killed before noting it down, or by others.
    one.deleted_utc_ms = now_utc_ms();
  } else if (!is || one.order == rank::kMedia) {
    const char* const why = is ? "the file changed after it was closed" : "the file isn't there";
    for (size_t target = 0; target < settings_.targets.size(); ++target) {
      const errand of{name, target};
      const stage now = at(of).at;
      // Where it is confirmed it is, though it went from here.
      if (now == stage::kDead || (!is && now == stage::kConfirmed)) continue;
      bury(of, why);
      buried_.push_back(of);
    }
  } else {
    one.is = *is;
    one.sha256.clear();
    one.announced = false;
    for (size_t target = 0; target < settings_.targets.size(); ++target) {
      drop_sealed({name, target});
    }
    for (auto& [target, shipped] : one.targets) begin_anew(shipped);
  }
  touch(name);
  is_due_ = true;
}

// One that is new is to get all that is still here; one that is gone is waited for no more.
void consignment::settle_targets(const std::string& name, entry& of) {
  std::map<std::string, shipment> now;
  bool is_new = false;
  for (const target_settings& target : settings_.targets) {
    const auto known = of.targets.find(target.name);
    if (known != of.targets.end()) {
      now[target.name] = known->second;
    } else if (of.deleted_utc_ms == 0) {
      now[target.name] = {};
      is_new = true;
    }
  }
  if (!is_new && now.size() == of.targets.size()) return;
  of.targets = std::move(now);
  touch(name);
  announce_file(name);
}

void consignment::index(const std::string& name, const entry& of) {
  for (size_t target = 0; target < settings_.targets.size(); ++target) {
    const auto there = of.targets.find(settings_.targets[target].name);
    const bool is_open =
        of.deleted_utc_ms == 0 && there != of.targets.end() && !is_settled(there->second);
    if (is_open) {
      open_.insert({target, of.order, name});
    } else {
      open_.erase({target, of.order, name});
    }
    if (there != of.targets.end() && !there->second.sealed_sha256.empty()) {
      sealed_.insert({target, name});
    } else {
      sealed_.erase({target, name});
    }
  }
}

void consignment::touch(const std::string& name) {
  entry& one = state_.files.at(name);
  one.text.clear();
  index(name, one);
  is_changed_ = true;
  maybe_settled_ = true;
}

void consignment::retry_dead() {
  for (auto& [name, one] : state_.files) {
    if (!one.dead()) continue;
    std::string fault;
    const std::optional<stamp> is = stamp_of(path(name), fault);
    const bool other = is && !(*is == one.is);
    if (other) {
      one.is = *is;
      one.sha256.clear();
    }
    one.announced = false;
    for (size_t target = 0; other && target < settings_.targets.size(); ++target) {
      drop_sealed({name, target});
    }
    for (auto& [target, shipped] : one.targets) {
      // What was said to be another's is looked at again, and not replaced even now.
      if (shipped.at == stage::kDead || other) begin_anew(shipped);
    }
    touch(name);
    is_due_ = true;
  }
}

std::pair<std::set<consignment::place>::const_iterator,
          std::set<consignment::place>::const_iterator>
consignment::open_at(size_t target) const {
  const auto first = open_.lower_bound({target, rank::kMedia, ""});
  if (first == open_.end() || std::get<0>(*first) != target) return {open_.end(), open_.end()};
  const rank order = std::get<1>(*first);
  if (order != rank::kMedia && !over_) return {open_.end(), open_.end()};
  const auto next = static_cast<rank>(static_cast<int>(order) + 1);
  return {first, open_.lower_bound({target, next, ""})};
}

int64_t consignment::wait_until(int64_t next_utc_ms, int64_t now_ms) const {
  const int64_t wait = next_utc_ms - now_ms;
  const int64_t longest = std::max<int64_t>(settings_.longest_retry.count(), kLongestWaitMs);
  return wait < 0 || wait > longest ? 0 : wait;
}

std::vector<consignment::errand> consignment::take_due(size_t target, int64_t now_ms, size_t most) {
  std::vector<errand> due;
  const auto [first, last] = open_at(target);
  for (auto at_place = first; at_place != last && due.size() < most; ++at_place) {
    const errand one{std::get<2>(*at_place), target};
    if (flying_.count({one.file, target}) != 0 || wait_until(at(one).next_utc_ms, now_ms) > 0) {
      continue;
    }
    flying_.insert({one.file, target});
    due.push_back(one);
  }
  return due;
}

std::optional<int64_t> consignment::wait_ms(size_t target, int64_t now_ms) const {
  std::optional<int64_t> least;
  const auto [first, last] = open_at(target);
  for (auto at_place = first; at_place != last && least.value_or(1) > 0; ++at_place) {
    const errand one{std::get<2>(*at_place), target};
    if (flying_.count({one.file, target}) != 0) continue;
    const int64_t wait = wait_until(at(one).next_utc_ms, now_ms);
    least = std::min(wait, least.value_or(wait));
  }
  return least;
}

const shipment& consignment::at(const errand& of) const {
  static const shipment kNone;
  const entry& one = state_.files.at(of.file);
  const auto there = one.targets.find(settings_.targets[of.target].name);
  return there != one.targets.end() ? there->second : kNone;
}

// To be touched after that.
shipment& consignment::change(const errand& of) {
  return state_.files.at(of.file).targets[settings_.targets[of.target].name];
}

void consignment::set_digest(const errand& of, const std::string& sha256) {
  state_.files.at(of.file).sha256 = sha256;
  touch(of.file);
}

void consignment::set_sending(const errand& of) {
  change(of).ours = true;
  change(of).at = stage::kSending;
  touch(of.file);
}

void consignment::set_sent(const errand& of) {
  change(of).at = stage::kSent;
  touch(of.file);
}

void consignment::set_upload(const errand& of, const shipment& as) {
  shipment& one = change(of);
  if (one.upload_id == as.upload_id && one.parts.size() == as.parts.size()) return;
  one.upload_id = as.upload_id;
  one.part_bytes = as.part_bytes;
  one.parts = as.parts;
  touch(of.file);
}

void consignment::disown(const errand& of) {
  change(of).ours = false;
  touch(of.file);
  is_due_ = true;
}

void consignment::set_sealed(const errand& of, uint64_t bytes, const std::string& sha256) {
  shipment& one = change(of);
  one.sealed_for = digest_of_keys(settings_.targets[of.target]);
  one.sealed_bytes = bytes;
  one.sealed_sha256 = sha256;
  // An upload of other bytes is to be ended.
  one.part_bytes = 0;
  one.parts.clear();
  spent_.erase({of.file, of.target});
  touch(of.file);
  is_due_ = true;
}

void consignment::give_up_sealed(const errand& of) {
  drop_sealed(of);
  // An upload of it is to be ended.
  shipment& one = change(of);
  one.part_bytes = 0;
  one.parts.clear();
  touch(of.file);
  is_due_ = true;
}

size_t consignment::sealed(size_t target) const {
  const auto first = sealed_.lower_bound({target, ""});
  return static_cast<size_t>(std::distance(first, sealed_.lower_bound({target + 1, ""})));
}

// Once it is on disk that nobody waits for it.
void consignment::drop_sealed(const errand& of) {
  if (at(of).sealed_sha256.empty()) return;
  shipment& one = change(of);
  one.sealed_sha256.clear();
  one.sealed_bytes = 0;
  spent_.insert({of.file, of.target});
}

void consignment::remove_spent() {
  for (auto at = spent_.begin(); at != spent_.end();) {
    // Another one may be under way to its name.
    if (flying_.count(*at) != 0) {
      ++at;
      continue;
    }
    copies_.remove(settings_.targets[at->second].name, at->first);
    at = spent_.erase(at);
    maybe_empty_ = true;
  }
  if (!maybe_empty_ || !flying_.empty()) return;
  copies_.remove_empty_folders();
  maybe_empty_ = false;
}

void consignment::confirm(const errand& of, int64_t now_ms) {
  put_back(of);
  drop_sealed(of);
  shipment& one = change(of);
  shipment done;
  done.at = stage::kConfirmed;
  done.confirmed_utc_ms = now_ms;
  done.ours = one.ours;
  done.sealed_for = one.sealed_for;
  one = done;
  unsaved_.insert(of.file);
  touch(of.file);
  is_due_ = true;
  announce_file(of.file);
}

void consignment::announce_file(const std::string& name) {
  entry& whole = state_.files.at(name);
  if (whole.announced || !whole.confirmed()) return;
  whole.announced = true;
  touch(name);
  announce("file", name, nullptr);
}

void consignment::fail(const errand& of, const outcome& why, int64_t now_ms, uint32_t random) {
  if (why.is == outcome::kStopped) return put_back(of);
  shipment& one = change(of);
  ++one.attempts;
  one.error = why.text;
  if (why.is == outcome::kRefused && ++one.refusals >= settings_.refusals) {
    return bury(of, why.text);
  }
  const auto wait =
      backoff(one.attempts, settings_.first_retry, settings_.longest_retry, random).count();
  one.next_utc_ms = now_ms + std::max<int64_t>(wait, why.wait_ms);
  touch(of.file);
  is_due_ = true;
  put_back(of);
}

void consignment::bury(const errand& of, const std::string& why) {
  put_back(of);
  // It may stay dead for months, and the disk is the recorder's; asked for again, it is sealed
  // anew.
  drop_sealed(of);
  shipment& one = change(of);
  one.at = stage::kDead;
  one.error = why;
  touch(of.file);
  is_due_ = true;
  announce("dead", of.file, &one);
}

void consignment::put_back(const errand& of) {
  flying_.erase({of.file, of.target});
}

void consignment::changed(const errand& of, int64_t now_ms) {
  put_back(of);
  std::vector<std::string> faults;
  note(of.file, file(of.file).order, faults);
  for (auto& [target, one] : state_.files.at(of.file).targets) {
    if (is_settled(one)) continue;
    if (!faults.empty()) one.error = faults.front();
    one.next_utc_ms = std::max(one.next_utc_ms, now_ms + kChangedMs);
  }
  touch(of.file);
  is_due_ = true;
}

void consignment::set_deleted(const std::string& name, int64_t now_ms) {
  state_.files.at(name).deleted_utc_ms = now_ms;
  touch(name);
  is_due_ = true;
}

bool consignment::is_safe(const std::string& name) const {
  return file(name).confirmed() && unsaved_.count(name) == 0;
}

void consignment::announce(const std::string& kind, const std::string& name,
                           const shipment* about) {
  const entry& one = state_.files.at(name);
  Json::Value body;
  body["event"] = kind;
  body["folder"] = folder_;
  body["remote"] = state_.remote;
  body["file"] = name;
  body["path"] = path(name);
  body["bytes"] = Json::UInt64{one.is.bytes};
  body["sha256"] = one.sha256;
  if (about != nullptr) body["error"] = about->error;
  body["targets"] = Json::arrayValue;
  for (const auto& [target, shipped] : one.targets) {
    if (about == nullptr || about == &shipped) body["targets"].append(target);
  }
  add_notice(kind, line_of(body), false);
  if (kind == "file" && !settings_.file_hook.empty()) add_notice(kind, line_of(body), true);
}

void consignment::announce_session() {
  if (!over_ || !open_.empty() || state_.files.empty() || !maybe_settled_) return;
  maybe_settled_ = false;
  Json::Value body;
  body["event"] = "session";
  body["folder"] = folder_;
  body["remote"] = state_.remote;
  Json::UInt64 bytes = 0;
  Json::UInt64 dead = 0;
  std::string all;
  for (const auto& [name, one] : state_.files) {
    if (!one.settled()) return;
    bytes += one.is.bytes;
    dead += one.dead() ? 1 : 0;
    all.append(name).append(1, '\0').append(one.sha256).append(one.dead() ? "-" : "+");
  }
  const std::string digest = sha256_of(all);
  if (digest == state_.announced) return;
  body["files"] = Json::UInt64{state_.files.size()};
  body["bytes"] = bytes;
  body["dead"] = dead;
  state_.announced = digest;
  is_changed_ = true;
  is_due_ = true;
  add_notice("session", line_of(body), false);
  if (!settings_.session_hook.empty()) add_notice("session", line_of(body), true);
}

void consignment::add_notice(const std::string& kind, const std::string& body, bool for_hook) {
  if (!for_hook && settings_.webhook_url.empty()) return;
  notice made;
  made.id = state_.id + "-" + std::to_string(state_.next_notice++);
  made.body = body;
  made.for_hook = for_hook;
  made.kind = kind;
  state_.notices.push_back(made);
  is_changed_ = true;
  is_due_ = true;
}

namespace {

template <class Notices>
auto first_of(Notices& notices, bool for_hook) {
  return std::find_if(notices.begin(), notices.end(),
                      [for_hook](const notice& one) { return one.for_hook == for_hook; });
}

}  // namespace

std::optional<int64_t> consignment::notice_wait_ms(bool for_hook, int64_t now_ms) const {
  const auto first = first_of(state_.notices, for_hook);
  if (first == state_.notices.end() || noticing_[for_hook ? 1 : 0]) return std::nullopt;
  return wait_until(first->next_utc_ms, now_ms);
}

std::optional<notice> consignment::take_notice(bool for_hook, int64_t now_ms) {
  if (notice_wait_ms(for_hook, now_ms).value_or(1) > 0) return std::nullopt;
  noticing_[for_hook ? 1 : 0] = true;
  return *first_of(state_.notices, for_hook);
}

void consignment::notice_done(bool for_hook) {
  noticing_[for_hook ? 1 : 0] = false;
  const auto first = first_of(state_.notices, for_hook);
  if (first == state_.notices.end()) return;
  state_.notices.erase(first);
  is_changed_ = true;
  is_due_ = true;
}

void consignment::notice_failed(bool for_hook, int64_t now_ms, std::chrono::milliseconds wait) {
  const auto first = first_of(state_.notices, for_hook);
  if (first != state_.notices.end()) ++first->attempts;
  notice_postponed(for_hook, now_ms, wait);
}

void consignment::notice_postponed(bool for_hook, int64_t now_ms, std::chrono::milliseconds wait) {
  noticing_[for_hook ? 1 : 0] = false;
  const auto first = first_of(state_.notices, for_hook);
  if (first == state_.notices.end()) return;
  first->next_utc_ms = now_ms + wait.count();
  is_changed_ = true;
  is_due_ = true;
}

bool consignment::in_place() const {
  return !lock_.valid() || still_locks(lock_.get(), folder_);
}

bool consignment::save() {
  if (!is_changed_) return true;
  fault_.clear();
  const int64_t began_ms = steady_ms();
  if (!in_place()) {
    fault_ = "the folder isn't there any more, or another one in its place";
  } else if (save_ledger(folder_, state_, fault_)) {
    is_changed_ = false;
    is_due_ = false;
    unsaved_.clear();
    remove_spent();
  }
  const int64_t now_ms = steady_ms();
  int64_t wait_ms = state_.files.size() > kFew ? (now_ms - began_ms) * kSaveShare : 0;
  if (is_changed_) wait_ms = kFailedSaveMs;
  lazy_from_ms_ = now_ms + std::min(kLaziestMs, wait_ms);
  return !is_changed_;
}

bool consignment::save_lazily(int64_t now_ms) {
  return now_ms < lazy_from_ms_ || save();
}

std::optional<int64_t> consignment::lazy_save_ms() const {
  // What was only noted is noted again by the next scan.
  const bool is_due = is_changed_ && (is_due_ || !has_pending());
  return is_due ? std::optional(lazy_from_ms_) : std::nullopt;
}

bool consignment::has_pending() const {
  return !state_.notices.empty() || !open_.empty();
}

bool consignment::has_dead() const {
  return std::any_of(state_.files.begin(), state_.files.end(),
                     [](const auto& one) { return one.second.dead(); });
}

}  // namespace zelta::deliver
