// SPDX-License-Identifier: Apache-2.0
#include "consignment.h"

#include <algorithm>

#include <json/json.h>

#include "digest.h"
#include "disk.h"
#include "recordings/recording_folder.h"

namespace zelta::deliver {
namespace {

bool is_settled(const shipment& of) {
  return of.at == stage::kConfirmed || of.at == stage::kDead;
}

// A new version of what may be rewritten: its place at the target stays ours.
void begin_anew(shipment& of) {
  const bool ours = of.ours || of.at == stage::kConfirmed;
  of = {};
  of.ours = ours;
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
      settings_(settings) {}

void consignment::scan(bool left_over, std::vector<std::string>& errors) {
  // Before the manifests are read: what they hold then is final.
  const bool over = recordings::is_over(folder_, left_over);
  const size_t known_errors = errors.size();
  const std::vector<recordings::manifest> manifests = recordings::read_manifests(folder_, errors);
  over_ = over && errors.size() == known_errors;
  for (const recordings::manifest& one : manifests) {
    for (const recordings::media_file& file : one.files) {
      if (!file.closed.empty() || over_) note(file.name, rank::kMedia);
    }
  }
  // Targets may be others than they were for files that are noted no more, too.
  for (auto& [name, one] : state_.files) settle_targets(one);
  if (!over_) return;
  for (const std::string& name : recordings::companion_names(folder_)) note(name, rank::kBeside);
  for (const recordings::manifest& one : manifests) note(one.name, rank::kManifest);
}

void consignment::note(const std::string& name, rank order) {
  const std::optional<stamp> is = stamp_of(path(name));
  const bool is_new = state_.files.count(name) == 0;
  entry& one = state_.files[name];
  one.order = order;
  if (is_new && is) one.is = *is;
  settle_targets(one);
  if (one.deleted_utc_ms != 0 || (is && *is == one.is)) return;
  for (size_t place = 0; place < settings_.targets.size(); ++place) {
    if (flying_.count({name, place}) != 0) return;  // who carries it will notice
  }
  if (!is && one.confirmed()) {
    // Deleted by whoever was killed before noting it down, or by others.
    one.deleted_utc_ms = now_utc_ms();
  } else if (!is || order == rank::kMedia) {
    const char* const why = is ? "the file changed after it was closed" : "the file isn't there";
    for (size_t place = 0; place < settings_.targets.size(); ++place) {
      const errand of{name, place};
      if (at(of).at != stage::kDead) bury(of, why);
    }
  } else {
    one.is = *is;
    one.sha256.clear();
    one.announced = false;
    for (auto& [target, shipped] : one.targets) begin_anew(shipped);
  }
}

// One that is new is to get all that is still here; one that is gone is waited for no more.
void consignment::settle_targets(entry& of) const {
  std::map<std::string, shipment> now;
  for (const target_settings& target : settings_.targets) {
    const auto known = of.targets.find(target.name);
    if (known != of.targets.end()) {
      now[target.name] = known->second;
    } else if (of.deleted_utc_ms == 0) {
      now[target.name] = {};
    }
  }
  of.targets = std::move(now);
}

void consignment::retry_dead() {
  for (auto& [name, one] : state_.files) {
    if (!one.dead()) continue;
    const std::optional<stamp> is = stamp_of(path(name));
    const bool other = is && !(*is == one.is);
    if (other) {
      one.is = *is;
      one.sha256.clear();
    }
    one.announced = false;
    for (auto& [target, shipped] : one.targets) {
      // What was said to be another's is looked at again, and not replaced even now.
      if (shipped.at == stage::kDead || other) begin_anew(shipped);
    }
  }
}

bool consignment::may_go(const entry& of, const std::string& target) const {
  if (of.deleted_utc_ms != 0) return false;
  if (of.order == rank::kMedia) return true;
  if (!over_) return false;
  return std::all_of(state_.files.begin(), state_.files.end(), [&](const auto& other) {
    const auto there = other.second.targets.find(target);
    return other.second.order >= of.order || there == other.second.targets.end() ||
           is_settled(there->second);
  });
}

std::vector<consignment::errand> consignment::take_due(int64_t now_ms, size_t most,
                                                       const std::vector<int64_t>& held) {
  std::vector<errand> due;
  for (auto& [name, one] : state_.files) {
    for (size_t place = 0; place < settings_.targets.size(); ++place) {
      if (due.size() >= most) return due;
      const auto there = one.targets.find(settings_.targets[place].name);
      if (there == one.targets.end() || is_settled(there->second) ||
          there->second.next_utc_ms > now_ms || held[place] > now_ms ||
          flying_.count({name, place}) != 0 || !may_go(one, there->first)) {
        continue;
      }
      flying_.insert({name, place});
      due.push_back({name, place});
    }
  }
  return due;
}

std::optional<int64_t> consignment::next_due_ms(const std::vector<int64_t>& held) const {
  std::optional<int64_t> next;
  const auto take = [&next](int64_t when) { next = next ? std::min(*next, when) : when; };
  for (const auto& [name, one] : state_.files) {
    for (size_t place = 0; place < settings_.targets.size(); ++place) {
      const auto there = one.targets.find(settings_.targets[place].name);
      if (there == one.targets.end() || is_settled(there->second) ||
          flying_.count({name, place}) != 0 || !may_go(one, there->first)) {
        continue;
      }
      take(std::max(there->second.next_utc_ms, held[place]));
    }
  }
  for (const bool for_hook : {false, true}) {
    const auto first =
        std::find_if(state_.notices.begin(), state_.notices.end(),
                     [for_hook](const notice& one) { return one.for_hook == for_hook; });
    if (first != state_.notices.end() && !noticing_[for_hook ? 1 : 0]) take(first->next_utc_ms);
  }
  return next;
}

shipment& consignment::at(const errand& of) {
  return state_.files.at(of.file).targets[settings_.targets[of.target].name];
}

void consignment::confirm(const errand& of, int64_t now_ms) {
  flying_.erase({of.file, of.target});
  shipment& one = at(of);
  one = {};
  one.at = stage::kConfirmed;
  one.confirmed_utc_ms = now_ms;
  one.ours = true;
  entry& whole = file(of.file);
  if (whole.confirmed() && !whole.announced) {
    whole.announced = true;
    announce("file", of.file, nullptr);
  }
}

void consignment::fail(const errand& of, const outcome& why, int64_t now_ms, uint32_t random) {
  if (why.is == outcome::kStopped) return put_back(of);
  shipment& one = at(of);
  ++one.attempts;
  one.error = why.text;
  if (why.is == outcome::kRefused && ++one.refusals >= settings_.refusals) {
    return bury(of, why.text);
  }
  const auto wait =
      backoff(one.attempts, settings_.first_retry, settings_.longest_retry, random).count();
  one.next_utc_ms = now_ms + std::max<int64_t>(wait, why.wait_ms);
  put_back(of);
}

void consignment::bury(const errand& of, const std::string& why) {
  flying_.erase({of.file, of.target});
  shipment& one = at(of);
  one.at = stage::kDead;
  one.error = why;
  announce("dead", of.file, &one);
}

void consignment::put_back(const errand& of) {
  flying_.erase({of.file, of.target});
}

void consignment::changed(const errand& of) {
  flying_.erase({of.file, of.target});
  note(of.file, file(of.file).order);
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
  if (!over_ || state_.files.empty()) return;
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
}

std::optional<notice> consignment::take_notice(bool for_hook, int64_t now_ms) {
  bool& flying = noticing_[for_hook ? 1 : 0];
  for (const notice& one : state_.notices) {
    if (one.for_hook != for_hook) continue;
    if (flying || one.next_utc_ms > now_ms) return std::nullopt;
    flying = true;
    return one;
  }
  return std::nullopt;
}

void consignment::notice_done(bool for_hook) {
  noticing_[for_hook ? 1 : 0] = false;
  const auto first =
      std::find_if(state_.notices.begin(), state_.notices.end(),
                   [for_hook](const notice& one) { return one.for_hook == for_hook; });
  if (first != state_.notices.end()) state_.notices.erase(first);
}

void consignment::notice_failed(bool for_hook, int64_t now_ms, std::chrono::milliseconds wait) {
  noticing_[for_hook ? 1 : 0] = false;
  for (notice& one : state_.notices) {
    if (one.for_hook != for_hook) continue;
    ++one.attempts;
    one.next_utc_ms = now_ms + wait.count();
    return;
  }
}

bool consignment::save() {
  fault_.clear();
  saved_ = save_ledger(folder_, state_, fault_);
  return saved_;
}

bool consignment::has_pending() const {
  return !state_.notices.empty() ||
         std::any_of(state_.files.begin(), state_.files.end(), [](const auto& one) {
           return one.second.deleted_utc_ms == 0 && !one.second.settled();
         });
}

bool consignment::has_dead() const {
  return std::any_of(state_.files.begin(), state_.files.end(),
                     [](const auto& one) { return one.second.dead(); });
}

}  // namespace zelta::deliver
