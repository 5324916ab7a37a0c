// SPDX-License-Identifier: Apache-2.0
#include "ledger.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "digest.h"
#include "names.h"
#include "recordings/folder_state.h"
#include "recordings/recording_folder.h"

namespace zelta::deliver {
namespace {

constexpr int kVersion = 1;
constexpr size_t kMostBytes = size_t{256} << 20;
constexpr size_t kMostParts = 10'000;
constexpr uint64_t kMostSealedBytes = uint64_t{1} << 50;
constexpr uint64_t kMostPartBytes = uint64_t{5} << 40;  // of what S3 takes as a whole
constexpr const char* kLockName = ".delivery.lock";

constexpr std::array<const char*, 5> kStages = {"pending", "sending", "sent", "confirmed", "dead"};
constexpr std::array<const char*, 3> kRanks = {"media", "beside", "manifest"};

template <size_t kSize>
size_t place_in(const std::array<const char*, kSize>& names, const std::string& name) {
  for (size_t place = 0; place < kSize; ++place) {
    if (name == names[place]) return place;
  }
  throw std::runtime_error("\"" + name + "\" is none of \"" + names[0] + "\" and its like");
}

Json::Value json_of(const shipment& of) {
  Json::Value made;
  made["state"] = name_of(of.at);
  made["attempts"] = of.attempts;
  made["refusals"] = of.refusals;
  made["next_utc_ms"] = Json::Int64{of.next_utc_ms};
  made["confirmed_utc_ms"] = Json::Int64{of.confirmed_utc_ms};
  made["error"] = of.error;
  made["ours"] = of.ours;
  if (!of.upload_id.empty()) {
    made["upload_id"] = of.upload_id;
    made["part_bytes"] = Json::UInt64{of.part_bytes};
    made["parts"] = Json::arrayValue;
    for (const std::string& part : of.parts) made["parts"].append(part);
  }
  if (!of.sealed_for.empty()) {
    made["sealed_for"] = of.sealed_for;
    made["sealed_sha256"] = of.sealed_sha256;
    made["sealed_bytes"] = Json::UInt64{of.sealed_bytes};
  }
  return made;
}

// Whoever may write into the folder could send us anywhere with a state.
const std::string& checked(const std::string& text, bool is_right, const char* what) {
  if (!is_right)
    throw std::runtime_error("\"" + shown_name(text).substr(0, 100) + "\" is no " + what);
  return text;
}

int count_of(const Json::Value& from) {
  const int count = from.asInt();
  return count >= 0 ? count : throw std::runtime_error("a count is below 0");
}

std::string digest_of(const Json::Value& from) {
  const std::string text = from.asString();
  const bool is_hex = text.find_first_not_of("0123456789abcdef") == std::string::npos;
  return checked(text, is_hex, "digest");
}

shipment shipment_of(const Json::Value& from) {
  shipment made;
  made.at = static_cast<stage>(place_in(kStages, from["state"].asString()));
  made.attempts = count_of(from["attempts"]);
  made.refusals = count_of(from["refusals"]);
  made.next_utc_ms = from["next_utc_ms"].asInt64();
  made.confirmed_utc_ms = from["confirmed_utc_ms"].asInt64();
  made.error = from["error"].asString();
  made.ours = from["ours"].asBool();
  made.upload_id = from["upload_id"].asString();
  made.part_bytes = from["part_bytes"].asUInt64();
  for (const Json::Value& part : from["parts"]) made.parts.push_back(part.asString());
  const bool fits = made.part_bytes <= kMostPartBytes && made.parts.size() <= kMostParts &&
                    (made.part_bytes > 0 || made.parts.empty());
  checked(made.upload_id, fits, "upload that S3 could have");
  made.sealed_for = digest_of(from["sealed_for"]);
  made.sealed_sha256 = digest_of(from["sealed_sha256"]);
  made.sealed_bytes = from["sealed_bytes"].asUInt64();
  const bool can_be =
      made.sealed_sha256.empty() ? made.sealed_bytes == 0 : made.sealed_bytes <= kMostSealedBytes;
  checked(made.sealed_sha256, can_be, "digest of so many bytes");
  return made;
}

Json::Value json_of(const entry& of) {
  Json::Value made;
  made["bytes"] = Json::UInt64{of.is.bytes};
  made["mtime_ns"] = Json::Int64{of.is.mtime_ns};
  made["sha256"] = of.sha256;
  made["rank"] = kRanks[static_cast<size_t>(of.order)];
  made["announced"] = of.announced;
  made["deleted_utc_ms"] = Json::Int64{of.deleted_utc_ms};
  made["targets"] = Json::objectValue;
  for (const auto& [target, one] : of.targets) made["targets"][target] = json_of(one);
  return made;
}

entry entry_of(const Json::Value& from) {
  entry made;
  made.is.bytes = from["bytes"].asUInt64();
  made.is.mtime_ns = from["mtime_ns"].asInt64();
  made.sha256 = digest_of(from["sha256"]);
  made.order = static_cast<rank>(place_in(kRanks, from["rank"].asString()));
  made.announced = from["announced"].asBool();
  made.deleted_utc_ms = from["deleted_utc_ms"].asInt64();
  const Json::Value& targets = from["targets"];
  for (const std::string& name : targets.getMemberNames()) {
    made.targets[name] = shipment_of(targets[name]);
  }
  return made;
}

Json::Value json_of(const notice& of) {
  Json::Value made;
  made["id"] = of.id;
  made["body"] = of.body;
  made["for_hook"] = of.for_hook;
  made["kind"] = of.kind;
  made["attempts"] = of.attempts;
  made["next_utc_ms"] = Json::Int64{of.next_utc_ms};
  return made;
}

notice notice_of(const Json::Value& from) {
  notice made{from["id"].asString(),   from["body"].asString(),    from["for_hook"].asBool(),
              from["kind"].asString(), count_of(from["attempts"]), from["next_utc_ms"].asInt64()};
  // They become headers.
  checked(made.id, is_sound_name(made.id), "notice's id");
  checked(made.kind, made.kind == "file" || made.kind == "session" || made.kind == "dead",
          "notice's kind");
  return made;
}

ledger ledger_of(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string fault;
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &fault)) {
    std::replace(fault.begin(), fault.end(), '\n', ' ');
    throw std::runtime_error(fault);
  }
  if (root["version"].asInt() != kVersion) {
    throw std::runtime_error("its version, " + root["version"].asString() + ", should be 1");
  }
  ledger made;
  made.id = root["id"].asString();
  made.remote = root["remote"].asString();
  checked(made.id, is_sound_name(made.id), "state's id");
  checked(made.remote, made.remote.empty() || is_sound_path(made.remote), "folder's name");
  made.announced = root["announced"].asString();
  made.next_notice = root["next_notice"].asUInt64();
  const Json::Value& files = root["files"];
  for (const std::string& name : files.getMemberNames()) {
    entry one = entry_of(files[name]);
    const bool fits = one.order == rank::kMedia
                          ? recordings::is_media_name(name)
                          : !name.empty() && name.front() != '.' && name != kLedgerName;
    made.files[checked(name, is_sound_name(name) && fits, "name of what a recording has")] =
        std::move(one);
  }
  for (const Json::Value& one : root["notices"]) made.notices.push_back(notice_of(one));
  return made;
}

// A line a file and a notice.
std::string text_of(const ledger& of) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  Json::Value head;
  head["version"] = kVersion;
  head["id"] = of.id;
  head["remote"] = of.remote;
  head["announced"] = of.announced;
  head["next_notice"] = Json::UInt64{of.next_notice};
  std::string text = Json::writeString(writer, head);
  text.pop_back();
  const char* before = ",\n\"files\":{\n";
  if (of.files.empty()) text += before;
  for (const auto& [name, one] : of.files) {
    if (one.text.empty()) {
      one.text = Json::writeString(writer, name) + ":" + Json::writeString(writer, json_of(one));
    }
    text.append(before).append(one.text);
    before = ",\n";
  }
  text += "\n},\n\"notices\":[";
  before = "\n";
  for (const notice& one : of.notices) {
    text.append(before).append(Json::writeString(writer, json_of(one)));
    before = ",\n";
  }
  return text + "\n]}\n";
}

}  // namespace

const char* name_of(stage at) {
  return kStages[static_cast<size_t>(at)];
}

bool entry::confirmed() const {
  return !targets.empty() && std::all_of(targets.begin(), targets.end(), [](const auto& one) {
    return one.second.at == stage::kConfirmed;
  });
}

bool entry::dead() const {
  return std::any_of(targets.begin(), targets.end(),
                     [](const auto& one) { return one.second.at == stage::kDead; });
}

bool entry::settled() const {
  return std::all_of(targets.begin(), targets.end(), [](const auto& one) {
    return one.second.at == stage::kConfirmed || one.second.at == stage::kDead;
  });
}

std::optional<ledger> load_ledger(const std::string& folder, std::string& error) {
  const std::string path = folder + "/" + kLedgerName;
  try {
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
      ledger fresh;
      fresh.id = random_id();
      return fresh;
    }
    const std::optional<std::string> text = read_text(path, kMostBytes, error);
    if (!text) return std::nullopt;
    return ledger_of(*text);
  } catch (const std::exception& e) {
    error = path + " is no state of deliveries: " + e.what() +
            "; move it away to have everything compared with the targets anew";
    return std::nullopt;
  }
}

std::string remote_path(const ledger& of, const std::string& file) {
  const std::string log = "recording_engine";
  const std::string stem = "recording";
  if (file.compare(0, log.size(), log) != 0) return of.remote + "/" + file;
  // The shortest name has the lowest number: "" of the first, then "_2".
  std::string number;
  bool found = false;
  for (const auto& [name, is] : of.files) {
    if (!recordings::is_manifest_name(name)) continue;
    const std::string its = name.substr(stem.size(), name.rfind('.') - stem.size());
    const bool is_lower = its.size() != number.size() ? its.size() < number.size() : its < number;
    if (!found || is_lower) number = its;
    found = true;
  }
  return of.remote + "/" + log + number + file.substr(log.size());
}

bool save_ledger(const std::string& folder, const ledger& of, std::string& error) {
  try {
    const std::string text = text_of(of);
    if (text.size() <= kMostBytes) return replace_file(folder + "/" + kLedgerName, text, error);
    error = "it would have more than " + std::to_string(kMostBytes >> 20U) + " MiB";
    return false;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}

base::unique_fd lock_deliveries(const std::string& folder, std::string& error) {
  const std::string path = folder + "/" + kLockName;
  base::unique_fd lock(
      open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666));
  if (!lock.valid()) {
    error = "open " + path + ": " + std::strerror(errno);
  } else if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) error = "flock " + path + ": " + std::strerror(errno);
    lock.reset();
  }
  return lock;
}

bool still_locks(int lock, const std::string& folder) {
  struct stat held {};
  struct stat there {};
  return fstat(lock, &held) == 0 && lstat((folder + "/" + kLockName).c_str(), &there) == 0 &&
         held.st_dev == there.st_dev && held.st_ino == there.st_ino;
}

}  // namespace zelta::deliver
