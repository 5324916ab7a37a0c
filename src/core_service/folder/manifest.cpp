// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/manifest.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <json/json.h>
#include <unistd.h>

#include "base/clocks.h"
#include "base/log.h"
#include "core_service/folder/leftover_files.h"
#include "recordings/crc_text.h"
#include "recordings/recording_folder.h"

namespace zelta::core_service {
namespace {

constexpr int kManifestVersion = 1;
constexpr const char* kDied = "recorder died";
// A session's. Strangers' names and words are among them: from here on the log alone has them.
constexpr size_t kMostMissing = 1000;
// What is new beyond these may be told twice, and is called nothing.
constexpr size_t kMostRemembered = 10'000;
constexpr size_t kLongestReason = 1000;

template <class T>
Json::Value to_json(const std::map<uint32_t, T>& by_user) {
  Json::Value v(Json::objectValue);
  for (const auto& [uid, value] : by_user) v[std::to_string(uid)] = Json::Value(value);
  return v;
}

template <class T>
std::map<uint32_t, T> by_user_from_json(const Json::Value& v) {
  std::map<uint32_t, T> by_user;
  for (const std::string& uid : v.getMemberNames()) {
    by_user[static_cast<uint32_t>(std::stoul(uid))] = v[uid].as<T>();
  }
  return by_user;
}

Json::Value to_json(const manifest_file& f) {
  Json::Value v(Json::objectValue);
  v["name"] = f.opened.name;
  v["channel_id"] = f.channel_id;
  v["uid"] = f.opened.uid;
  v["kind"] = f.is.kind;
  v["video_codec"] = f.is.video_codec;
  v["audio_codec"] = f.is.audio_codec;
  v["width"] = f.is.width;
  v["height"] = f.is.height;
  v["first_utc_ms"] = Json::Int64{f.is.first_utc_ms};
  v["last_utc_ms"] = Json::Int64{f.is.last_utc_ms};
  v["duration_ms"] = Json::Int64{std::max<int64_t>(f.is.last_utc_ms - f.is.first_utc_ms, 0)};
  v["bytes"] = Json::UInt64{f.is.bytes};
  v["closed"] = f.end.reason;
  if (f.end.crc32) v["crc32"] = recordings::text_of_crc(*f.end.crc32);
  return v;
}

manifest_file file_from_json(const Json::Value& v, const Json::Value& channel_id) {
  manifest_file f;
  f.opened.name = v.get("name", "").asString();
  f.channel_id = v.get("channel_id", channel_id).asString();
  f.opened.uid = v.get("uid", 0U).asUInt();
  f.is.kind = v.get("kind", "").asString();
  f.is.video_codec = v.get("video_codec", "").asString();
  f.is.audio_codec = v.get("audio_codec", "").asString();
  f.is.width = v.get("width", 0).asInt();
  f.is.height = v.get("height", 0).asInt();
  f.is.first_utc_ms = v.get("first_utc_ms", Json::Int64{0}).asInt64();
  f.is.last_utc_ms = v.get("last_utc_ms", Json::Int64{0}).asInt64();
  f.is.bytes = v.get("bytes", 0U).asUInt64();
  f.end.reason = v.get("closed", "").asString();
  f.end.crc32 = recordings::crc_of_text(v.get("crc32", "").asString());
  return f;
}

Json::Value to_json(const recordings::session& one) {
  Json::Value v(Json::objectValue);
  v["channel_id"] = one.channel_id;
  v["began_utc_ms"] = Json::Int64{one.began_utc_ms};
  if (one.ended_utc_ms != 0) v["ended_utc_ms"] = Json::Int64{one.ended_utc_ms};
  v["ended"] = one.ended;
  return v;
}

Json::Value to_json(const manifest_gap& gap) {
  Json::Value v(Json::objectValue);
  v["uid"] = gap.uid;
  v["channel_id"] = gap.channel_id;
  v["medium"] = gap.what.medium;
  v["codec"] = gap.what.codec;
  v["reason"] = gap.what.reason;
  v["utc_ms"] = Json::Int64{gap.utc_ms};
  if (gap.until_utc_ms != 0) v["until_utc_ms"] = Json::Int64{gap.until_utc_ms};
  return v;
}

manifest_gap gap_from_json(const Json::Value& v) {
  return {v.get("uid", 0U).asUInt(),
          v.get("channel_id", "").asString(),
          {v.get("medium", "").asString(), v.get("codec", "").asString(),
           v.get("reason", "").asString()},
          v.get("utc_ms", Json::Int64{0}).asInt64(),
          v.get("until_utc_ms", Json::Int64{0}).asInt64()};
}

std::string identity_of(const manifest_gap& gap) {
  return std::to_string(gap.uid) + '\n' + gap.channel_id + '\n' + gap.what.medium + '\n' +
         gap.what.reason;
}

// Throws when it isn't JSON.
Json::Value parse(std::ifstream& file) {
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &root, &errors)) {
    throw Json::RuntimeError(errors);
  }
  return root;
}

}  // namespace

manifest::manifest(std::string folder, std::string name, std::string channel_id,
                   state_writer& writer)
    : folder_(std::move(folder)),
      name_(std::move(name)),
      channel_id_(std::move(channel_id)),
      writer_(writer) {
  load();
}

void manifest::load() {
  const std::string path = folder_ + name_;
  std::ifstream file(path);
  if (!file) return;
  try {
    const Json::Value root = parse(file);
    for (const Json::Value& entry : root["files"]) add(file_from_json(entry, root["channel_id"]));
    for (const Json::Value& entry : root["sessions"]) {
      sessions_.push_back(recordings::session_of(entry));
    }
    for (const Json::Value& entry : root["missing"]) missing_.push_back(gap_from_json(entry));
    missing_before_ = missing_.size();
    missing_before_of_last_ = root.get("missing_before", 0U).asUInt();
    names_ = by_user_from_json<std::string>(root["names"]);
    pictures_ = by_user_from_json<uint64_t>(root["pictures"]);
    messages_ = by_user_from_json<uint64_t>(root["messages"]);
    lost_packets_ = by_user_from_json<uint64_t>(root["lost_packets"]);
    const Json::Value& dropped = root["dropped_frames"];
    dropped_before_ = {dropped.get("pictures", 0).asUInt64(), dropped.get("coded", 0).asUInt64(),
                       dropped.get("sound", 0).asUInt64()};
    dropped_ = dropped_before_;
  } catch (const std::exception& e) {
    files_.clear();
    sessions_.clear();
    names_.clear();
    pictures_.clear();
    messages_.clear();
    lost_packets_.clear();
    missing_.clear();
    missing_before_ = 0;
    base::log_dir(folder_.c_str(), base::ERROR_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                  "%s can't be read and is kept as %s.broken: %s", name_.c_str(), name_.c_str(),
                  e.what());
    std::rename(path.c_str(), (path + ".broken").c_str());
  }
  for (auto& [number, f] : files_) {
    if (f.end.reason.empty()) f.end.reason = kDied;
  }
}

void manifest::adopt_leftovers() {
  // What the predecessor has told needs no second telling.
  missing_before_ = std::min<size_t>(missing_before_of_last_, missing_.size());
  for (size_t i = missing_before_; i < missing_.size(); ++i) {
    if (missing_[i].until_utc_ms == 0) noted_.insert(identity_of(missing_[i]));
  }
  const std::set<std::string> of_others = listed_elsewhere();
  std::map<std::string, size_t> known;
  for (const auto& [number, f] : files_) known[f.opened.name] = number;
  for (manifest_file& found : leftover_files(folder_)) {
    const std::string& name = found.opened.name;
    if (of_others.count(name) != 0) continue;
    const auto listed = known.find(name);
    const bool is_listed = listed != known.end();
    if (is_listed && files_.at(listed->second).end.reason != kDied) continue;
    if (found.is.bytes == 0) {
      const std::string path = folder_ + name;
      base::log_dir(folder_.c_str(), base::WARN_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                    "%s held nothing yet when its recorder died, and goes", path.c_str());
      unlink(path.c_str());
      if (is_listed) files_.erase(listed->second);
    } else if (is_listed) {
      files_.at(listed->second).is.bytes = found.is.bytes;
    } else {
      found.end.reason = kDied;
      add(std::move(found));
    }
  }
}

std::set<std::string> manifest::listed_elsewhere() const {
  std::set<std::string> names;
  std::error_code ignored;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at(folder_, ignored); at != end; at.increment(ignored)) {
    const std::string name = at->path().filename().string();
    if (!recordings::is_manifest_name(name) || name == name_) continue;
    try {
      std::ifstream file(at->path());
      const Json::Value root = parse(file);
      for (const Json::Value& entry : root["files"]) names.insert(entry["name"].asString());
    } catch (const std::exception&) {
      // Whose it is will say so.
    }
  }
  return names;
}

bool manifest::note_missing(uint32_t uid, const missing_medium& what) {
  manifest_gap gap{uid, channel_id_, what, base::utc_ms(), 0};
  gap.what.reason.resize(std::min(gap.what.reason.size(), kLongestReason));
  std::string identity = identity_of(gap);
  if (noted_.count(identity) != 0) return false;
  if (noted_.size() < kMostRemembered) noted_.insert(std::move(identity));
  if (missing_.size() - missing_before_ < kMostMissing) missing_.push_back(std::move(gap));
  return true;
}

void manifest::end_missing(uint32_t uid, const std::string& medium) {
  for (size_t i = missing_before_; i < missing_.size(); ++i) {
    manifest_gap& gap = missing_[i];
    if (gap.uid != uid || gap.what.medium != medium || gap.until_utc_ms != 0) continue;
    gap.until_utc_ms = base::utc_ms();
    noted_.erase(identity_of(gap));
    changed();
  }
}

void manifest::set_name(uint32_t uid, const std::string& name) {
  if (names_.size() >= kMostRemembered && names_.count(uid) == 0) return;
  names_[uid] = name;
  changed();
}

void manifest::set_dropped(const dropped_counts& now) {
  dropped_ = {dropped_before_.pictures + now.pictures, dropped_before_.coded + now.coded,
              dropped_before_.sound + now.sound};
}

void manifest::add(manifest_file file) {
  if (file.channel_id.empty()) file.channel_id = channel_id_;
  files_.emplace(next_number_++, std::move(file));
}

// ---- What the ledger tells -----------------------------------------------------------------

void manifest::on_session_began(bool goes_on) {
  if (!sessions_.empty() && sessions_.back().ended.empty()) {
    if (goes_on) return;
    end_as_dead(sessions_.back());
  }
  sessions_.push_back({channel_id_, base::utc_ms(), 0, ""});
  changed();
}

void manifest::end_as_dead(recordings::session& one) const {
  one.ended = kDied;
  one.ended_utc_ms = one.began_utc_ms;
  for (const auto& [number, f] : files_) {
    one.ended_utc_ms = std::max(one.ended_utc_ms, f.is.last_utc_ms);
  }
}

void manifest::on_session_ended(const std::string& reason) {
  if (sessions_.empty()) return;
  sessions_.back().ended = reason;
  sessions_.back().ended_utc_ms = base::utc_ms();
  changed();
}

void manifest::on_file_opened(file_number file, const file_opened& what) {
  numbers_[file] = next_number_;
  manifest_file fresh;
  fresh.opened = what;
  fresh.is.first_utc_ms = fresh.is.last_utc_ms = what.begin_utc_ms;
  add(std::move(fresh));
  changed();
}

void manifest::on_file_progress(file_number file, const file_progress& is) {
  files_.at(numbers_.at(file)).is = is;
}

void manifest::on_file_closed(file_number file, const file_closed& how) {
  files_.at(numbers_.at(file)).end = how;
  numbers_.erase(file);
  changed();
}

void manifest::on_file_dropped(file_number file) {
  files_.erase(numbers_.at(file));
  numbers_.erase(file);
  changed();
}

// ---- The file ------------------------------------------------------------------------------

void manifest::save() {
  changed_ = false;
  Json::Value root(Json::objectValue);
  root["version"] = kManifestVersion;
  root["channel_id"] = channel_id_;
  Json::Value files(Json::arrayValue);
  for (const auto& [number, f] : files_) files.append(to_json(f));
  root["files"] = std::move(files);
  Json::Value sessions(Json::arrayValue);
  for (const recordings::session& one : sessions_) sessions.append(to_json(one));
  root["sessions"] = std::move(sessions);
  Json::Value missing(Json::arrayValue);
  for (const manifest_gap& gap : missing_) missing.append(to_json(gap));
  root["missing"] = std::move(missing);
  root["missing_before"] = Json::UInt64{missing_before_};
  root["names"] = to_json(names_);
  root["pictures"] = to_json(pictures_);
  root["messages"] = to_json(messages_);
  root["lost_packets"] = to_json(lost_packets_);
  root["lag"]["packets_ms"] = Json::Int64{lag_.packets_ms};
  root["lag"]["disk_ms"] = Json::Int64{lag_.disk_ms};
  Json::Value dropped(Json::objectValue);
  dropped["pictures"] = Json::UInt64{dropped_.pictures};
  dropped["coded"] = Json::UInt64{dropped_.coded};
  dropped["sound"] = Json::UInt64{dropped_.sound};
  root["dropped_frames"] = std::move(dropped);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  writer_.replace(folder_ + name_, Json::writeString(writer, root) + "\n");
}

}  // namespace zelta::core_service
