// SPDX-License-Identifier: Apache-2.0
#include "carrier.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>
#include <random>
#include <utility>

#include <zlib.h>

#include "age.h"
#include "digest.h"
#include "disk.h"
#include "recordings/crc_text.h"

namespace zelta::deliver {
namespace {

uint32_t random_number() {
  thread_local std::minstd_rand source{std::random_device{}()};
  return static_cast<uint32_t>(source());
}

std::string text_of(const consignment::checksum& of) {
  return std::to_string(of.bytes) + " bytes with the CRC-32 " + recordings::text_of_crc(of.crc32);
}

}  // namespace

carrier::carrier(const carrier_tools& with, http_client& by, consignment& from,
                 consignment::errand of)
    : with_(with),
      by_(by),
      from_(from),
      of_(std::move(of)),
      settings_(with.settings.targets[of_.target]),
      to_(*with.targets[of_.target]),
      folder_(from.folder()) {}

void carrier::carry() {
  try {
    if (load() && look_first() && seal() && begin() && send()) look_after();
  } catch (const std::exception& e) {
    fail({outcome::kLater, e.what(), 0});
  }
}

bool carrier::load() {
  const std::string path = folder_ + "/" + of_.file;
  file_ = open_plain(path);
  const int why = errno;
  {
    const std::lock_guard lock(with_.mutex);
    const entry& is = from_.file(of_.file);
    parcel_.remote = remote_path(from_.state(), of_.file);
    parcel_.replaces = from_.at(of_).ours;
    is_ = is.is;
    order_ = is.order;
    sha256_ = is.sha256;
  }
  if (settings_.is_sealed()) parcel_.remote += kSealedEnding;
  if (!file_.valid()) {
    std::string fault;
    if (!stamp_of(path, fault) && fault.empty()) {
      changed();
    } else {
      // It is there, and can't be read now: others' rights, a lease, no descriptors.
      fail({outcome::kLater, "open " + path + ": " + std::strerror(why), 0});
    }
    return false;
  }
  if (!still_the_same()) {
    changed();
    return false;
  }
  if (sha256_.empty() && !digest()) return false;
  pack();
  return true;
}

// Of a copy that isn't made yet nothing is known: no target has it, and whether one can be reached
// is to be seen before the disk is filled with copies of what can't go.
void carrier::pack() {
  if (!settings_.is_sealed()) {
    parcel_.file = file_.get();
    parcel_.is = is_;
    parcel_.sha256 = sha256_;
    return;
  }
  const std::string keys = digest_of_keys(settings_);
  const std::lock_guard lock(with_.mutex);
  const shipment& at = from_.at(of_);
  if (at.sealed_for != keys) return;
  parcel_.is.bytes = at.sealed_bytes;
  parcel_.sha256 = at.sealed_sha256;
}

bool carrier::digest() {
  sha256 of;
  // In one read: of an hour with many users a second one would take as long as the sending.
  consignment::checksum is;
  std::string error;
  const auto add = [&](const char* bytes, size_t size) {
    of.add(bytes, size);
    is.bytes += size;
    is.crc32 = static_cast<uint32_t>(
        crc32_z(is.crc32, reinterpret_cast<const unsigned char*>(bytes), size));
    return !with_.limits.stopped();
  };
  if (!read_all(file_.get(), add, error)) {
    fail({outcome::kLater, folder_ + "/" + of_.file + ": " + error, 0});
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
  std::optional<consignment::checksum> told;
  {
    const std::lock_guard lock(with_.mutex);
    told = from_.checksum_of(of_.file);
  }
  if (told && (told->bytes != is.bytes || told->crc32 != is.crc32)) {
    bury("the disk damaged it: the manifest has " + text_of(*told) + ", the file " + text_of(is));
    return false;
  }
  sha256_ = of.hex();
  const std::lock_guard lock(with_.mutex);
  from_.set_digest(of_, sha256_);
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
    abandon_upload();
    confirm();
    return false;
  }
  if (seen.is == presence::kOther && !parcel_.replaces) {
    bury("another file stands there as " + parcel_.remote + "; it was left as it is");
    return false;
  }
  return true;
}

// The copy that stands ready, or, without one that is whole, a new one. No plain byte goes if that
// fails.
bool carrier::seal() {
  if (!settings_.is_sealed()) return true;
  const sealed_copies copies(folder_);
  outcome done{outcome::kRefused, "", 0};
  if (!parcel_.sha256.empty()) {
    done = copies.open(settings_.name, of_.file, parcel_.is.bytes, parcel_.sha256, with_.limits,
                       sealed_);
  }
  const bool is_new = done.is == outcome::kRefused;
  if (is_new) {
    done = copies.make(settings_, of_.file, file_.get(), with_.settings, with_.limits, sealed_);
  }
  if (done.is != outcome::kDone) {
    done.text.insert(0, "sealing: ");
    fail(done);
    return false;
  }
  if (!still_the_same()) {
    if (is_new) copies.remove(settings_.name, of_.file);
    changed();
    return false;
  }
  parcel_.file = sealed_.file.get();
  parcel_.is.bytes = sealed_.bytes;
  parcel_.sha256 = sealed_.sha256;
  if (is_new) {
    const std::lock_guard lock(with_.mutex);
    if (from_.at(of_).sealed_sha256.empty()) ++with_.copies[of_.target];
    from_.set_sealed(of_, sealed_.bytes, sealed_.sha256);
  }
  return true;
}

bool carrier::begin() {
  std::unique_lock lock(with_.mutex);
  from_.set_sending(of_);
  // Of media, which never changes, where all of it or nothing comes to stand there: whoever comes
  // after a kill finds out by looking. Not so of a sealed copy that isn't noted: it would be made
  // anew, with other bytes.
  if (order_ == rank::kMedia && to_.takes_whole() && !settings_.is_sealed()) return true;
  if (from_.save()) return true;
  // Without a state a kill now would have what is there taken for another's.
  const std::string why = "the state can't be kept: " + from_.fault();
  lock.unlock();
  fail({outcome::kLater, why, 0});
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
    from_.set_upload(of_, at);
    return from_.save();
  };
  const outcome sent = to_.send(by_, parcel_, at, save);
  if (sent.occupied) {
    const std::lock_guard lock(with_.mutex);
    from_.disown(of_);
  }
  {
    // Of an upload that is complete or gone; on disk with the next step.
    const std::lock_guard lock(with_.mutex);
    from_.set_upload(of_, at);
  }
  if (!still_the_same()) {
    changed();
    return false;
  }
  if (sent.is != outcome::kDone) {
    fail(sent);
    return false;
  }
  const std::lock_guard lock(with_.mutex);
  from_.set_sent(of_);
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
  std::string ignored;
  const std::optional<stamp> held = file_.valid() ? stamp_of(file_.get()) : std::nullopt;
  const std::optional<stamp> named = stamp_of(folder_ + "/" + of_.file, ignored);
  return held && named && *held == is_ && *named == is_;
}

// Nothing comes of an upload in parts any more, of which the target would keep what it has.
void carrier::abandon_upload() {
  shipment at;
  {
    const std::lock_guard lock(with_.mutex);
    at = from_.at(of_);
  }
  if (at.upload_id.empty() || with_.limits.stopped()) return;
  try {
    to_.abandon(by_, parcel_, at);
  } catch (const std::exception&) {
    // Its rules end it then, or nobody.
  }
}

void carrier::confirm() {
  {
    const std::lock_guard lock(with_.mutex);
    from_.confirm(of_, now_utc_ms());
    with_.gates.ended(of_.target, {}, steady_ms(), random_number());
    static_cast<void>(from_.save_lazily(steady_ms()));  // the courier looks for what isn't saved
    note("confirmed", "");
  }
  with_.reports.tell_noted();
}

void carrier::fail(const outcome& why) {
  if (why.is == outcome::kRefused) {
    bool is_last = false;
    {
      const std::lock_guard lock(with_.mutex);
      is_last = from_.at(of_).refusals + 1 >= with_.settings.refusals;
    }
    if (is_last) abandon_upload();
  }
  {
    const std::lock_guard lock(with_.mutex);
    from_.fail(of_, why, now_utc_ms(), random_number());
    if (why.is != outcome::kStopped) {
      note(from_.at(of_).at == stage::kDead ? "dead letter" : "failed", why.text);
    }
    // A target that answers, and takes nothing, would have the disk filled with copies of all that
    // waits: beside those under way as many may wait. What it has a part of goes on.
    const shipment& at = from_.at(of_);
    const auto most = size_t{2} * static_cast<size_t>(with_.settings.connections);
    if (!at.sealed_sha256.empty() && at.parts.empty() && with_.copies[of_.target] > most) {
      --with_.copies[of_.target];
      from_.give_up_sealed(of_);
    }
    with_.gates.ended(of_.target, why, steady_ms(), random_number());
    static_cast<void>(from_.save_lazily(steady_ms()));
  }
  with_.reports.tell_noted();
}

void carrier::bury(const std::string& why) {
  {
    const std::lock_guard lock(with_.mutex);
    from_.bury(of_, why);
    with_.gates.ended(of_.target, {}, steady_ms(), random_number());
    static_cast<void>(from_.save_lazily(steady_ms()));
    note("dead letter", why);
  }
  with_.reports.tell_noted();
}

void carrier::changed() {
  const std::lock_guard lock(with_.mutex);
  from_.changed(of_, now_utc_ms());  // the courier tells of dead letters
  with_.gates.ended(of_.target, {}, steady_ms(), random_number());
  static_cast<void>(from_.save_lazily(steady_ms()));
}

void carrier::note(const char* event, const std::string& why) const {
  with_.reports.note(event, {{"folder", folder_},
                             {"file", of_.file},
                             {"target", settings_.name},
                             {"bytes", std::to_string(is_.bytes)},
                             {"error", why}});
}

}  // namespace zelta::deliver
