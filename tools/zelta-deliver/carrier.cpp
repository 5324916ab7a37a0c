// SPDX-License-Identifier: Apache-2.0
#include "carrier.h"

#include <exception>
#include <random>
#include <utility>

#include "digest.h"
#include "disk.h"

namespace zelta::deliver {
namespace {

uint32_t random_number() {
  thread_local std::minstd_rand source{std::random_device{}()};
  return static_cast<uint32_t>(source());
}

}  // namespace

carrier::carrier(const carrier_tools& with, http_client& by, consignment& from,
                 consignment::errand of)
    : with_(with),
      by_(by),
      from_(from),
      of_(std::move(of)),
      settings_(with.settings.targets[of_.target]),
      to_(*with.targets[of_.target]) {}

void carrier::carry() {
  try {
    if (load() && look_first() && send()) look_after();
  } catch (const std::exception& e) {
    fail({outcome::kLater, e.what(), 0});
  }
}

bool carrier::load() {
  const std::string path = from_.path(of_.file);
  file_ = open_plain(path);
  entry is;
  {
    const std::lock_guard lock(with_.mutex);
    is = from_.file(of_.file);
    parcel_.remote = from_.state().remote + "/" + of_.file;
  }
  parcel_.file = file_.get();
  parcel_.is = is.is;
  parcel_.sha256 = is.sha256;
  if (!still_the_same()) {
    changed();
    return false;
  }
  return !is.sha256.empty() || digest(is);
}

bool carrier::digest(entry& is) {
  sha256 of;
  std::string error;
  const auto add = [&](const char* bytes, size_t size) {
    of.add(bytes, size);
    return !with_.limits.stopped();
  };
  if (!read_all(file_.get(), add, error)) {
    fail({outcome::kLater, from_.path(of_.file) + ": " + error, 0});
    return false;
  }
  if (with_.limits.stopped()) {
    fail({outcome::kStopped, "", 0});
    return false;
  }
  if (!still_the_same()) {
    changed();
    return false;
  }
  parcel_.sha256 = of.hex();
  const std::lock_guard lock(with_.mutex);
  from_.file(of_.file).sha256 = is.sha256 = parcel_.sha256;
  return true;
}

// Whoever was killed may have sent it, whole, and not noted that down. What stands there and isn't
// ours may be another recording's.
bool carrier::look_first() {
  const sight seen = to_.look(by_, parcel_, true);
  if (seen.is == presence::kUnknown) {
    fail(seen.why);
    return false;
  }
  if (seen.is == presence::kSame) {
    confirm();
    return false;
  }
  std::unique_lock lock(with_.mutex);
  shipment& at = from_.at(of_);
  if (seen.is == presence::kOther && !at.ours) {
    lock.unlock();
    bury("another file stands there as " + parcel_.remote + "; it was left as it is");
    return false;
  }
  at.ours = true;
  at.at = stage::kSending;
  if (from_.save()) return true;
  lock.unlock();
  // Without a state a kill now would have it sent twice.
  fail({outcome::kLater, "the state can't be kept", 0});
  return false;
}

bool carrier::send() {
  shipment at;
  {
    const std::lock_guard lock(with_.mutex);
    at = from_.at(of_);
  }
  const auto save = [this, &at] {
    const std::lock_guard lock(with_.mutex);
    shipment& kept = from_.at(of_);
    kept.upload_id = at.upload_id;
    kept.part_bytes = at.part_bytes;
    kept.parts = at.parts;
    return from_.save();
  };
  const outcome sent = to_.send(by_, parcel_, at, save);
  static_cast<void>(save());  // of an upload that is complete or gone; told by the next save
  if (!still_the_same()) {
    changed();
    return false;
  }
  if (sent.is != outcome::kDone) {
    fail(sent);
    return false;
  }
  const std::lock_guard lock(with_.mutex);
  from_.at(of_).at = stage::kSent;
  static_cast<void>(from_.save());  // the next who comes would look, and find it there
  return true;
}

void carrier::look_after() {
  const sight seen = to_.look(by_, parcel_, settings_.verify_content);
  switch (seen.is) {
    case presence::kSame:
      return confirm();
    case presence::kUnknown:
      return fail(seen.why);
    case presence::kAbsent:
      return fail({outcome::kRefused, "the target took it, and hasn't got it", 0});
    case presence::kOther:
      return fail({outcome::kRefused, "the target took it, and holds something else", 0});
  }
}

bool carrier::still_the_same() const {
  const std::optional<stamp> held = file_.valid() ? stamp_of(file_.get()) : std::nullopt;
  const std::optional<stamp> named = stamp_of(from_.path(of_.file));
  return held && named && *held == parcel_.is && *named == parcel_.is;
}

void carrier::confirm() {
  {
    const std::lock_guard lock(with_.mutex);
    from_.confirm(of_, now_utc_ms());
    static_cast<void>(from_.save());  // the courier looks for what isn't saved
  }
  tell("confirmed", "");
}

void carrier::fail(const outcome& why) {
  bool dead = false;
  {
    const std::lock_guard lock(with_.mutex);
    const int64_t now_ms = now_utc_ms();
    if (why.wait_ms > 0) with_.held_until_ms[of_.target] = now_ms + why.wait_ms;
    from_.fail(of_, why, now_ms, random_number());
    dead = from_.at(of_).at == stage::kDead;
    static_cast<void>(from_.save());
  }
  if (why.is != outcome::kStopped) tell(dead ? "dead letter" : "failed", why.text);
}

void carrier::bury(const std::string& why) {
  {
    const std::lock_guard lock(with_.mutex);
    from_.bury(of_, why);
    static_cast<void>(from_.save());
  }
  tell("dead letter", why);
}

void carrier::changed() {
  std::string why;
  {
    const std::lock_guard lock(with_.mutex);
    from_.changed(of_);
    const shipment& at = from_.at(of_);
    if (at.at == stage::kDead) why = at.error;
    static_cast<void>(from_.save());
  }
  if (!why.empty()) tell("dead letter", why);
}

void carrier::tell(const char* event, const std::string& why) const {
  with_.reports.tell(event, {{"folder", from_.folder()},
                             {"file", of_.file},
                             {"target", settings_.name},
                             {"bytes", std::to_string(parcel_.is.bytes)},
                             {"error", why}});
}

}  // namespace zelta::deliver
