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
  v["name"] = f.name;
  v["channel_id"] = f.channel_id;
  v["uid"] = f.uid;
  v["kind"] = f.kind;
  v["video_codec"] = f.video_codec;
  v["audio_codec"] = f.audio_codec;
  v["width"] = f.width;
  v["height"] = f.height;
  v["first_utc_ms"] = Json::Int64{f.first_utc_ms};
  v["last_utc_ms"] = Json::Int64{f.last_utc_ms};
  v["duration_ms"] = Json::Int64{std::max<int64_t>(f.last_utc_ms - f.first_utc_ms, 0)};
  v["closed"] = f.closed;
  return v;
}

manifest_file from_json(const Json::Value& v, const Json::Value& channel_id) {
  manifest_file f;
  f.name = v.get("name", "").asString();
  f.channel_id = v.get("channel_id", channel_id).asString();
  f.uid = v.get("uid", 0U).asUInt();
  f.kind = v.get("kind", "").asString();
  f.video_codec = v.get("video_codec", "").asString();
  f.audio_codec = v.get("audio_codec", "").asString();
  f.width = v.get("width", 0).asInt();
  f.height = v.get("height", 0).asInt();
  f.first_utc_ms = v.get("first_utc_ms", Json::Int64{0}).asInt64();
  f.last_utc_ms = v.get("last_utc_ms", Json::Int64{0}).asInt64();
  f.closed = v.get("closed", "").asString();
  return f;
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
    for (const Json::Value& entry : root["files"]) add(from_json(entry, root["channel_id"]));
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
    if (f.closed.empty()) f.closed = kDied;
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
  for (const auto& [number, f] : files_) known[f.name] = number;
  for (leftover_file& found : leftover_files(folder_)) {
    if (of_others.count(found.file.name) != 0) continue;
    const auto listed = known.find(found.file.name);
    const bool is_listed = listed != known.end();
    if (is_listed && files_.at(listed->second).closed != kDied) continue;
    if (found.empty) {
      const std::string path = folder_ + found.file.name;
      base::log_dir(folder_.c_str(), base::WARN_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                    "%s held nothing yet when its recorder died, and goes", path.c_str());
      unlink(path.c_str());
      if (is_listed) files_.erase(listed->second);
    } else if (!is_listed) {
      found.file.closed = kDied;
      add(std::move(found.file));
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

size_t manifest::add(manifest_file file) {
  if (file.channel_id.empty()) file.channel_id = channel_id_;
  files_.emplace(next_number_, std::move(file));
  return next_number_++;
}

void manifest::save() {
  changed_ = false;
  Json::Value root(Json::objectValue);
  root["version"] = kManifestVersion;
  root["channel_id"] = channel_id_;
  Json::Value files(Json::arrayValue);
  for (const auto& [number, f] : files_) files.append(to_json(f));
  root["files"] = std::move(files);
  Json::Value missing(Json::arrayValue);
  for (const manifest_gap& gap : missing_) missing.append(to_json(gap));
  root["missing"] = std::move(missing);
  root["missing_before"] = Json::UInt64{missing_before_};
  root["names"] = to_json(names_);
  root["pictures"] = to_json(pictures_);
  root["messages"] = to_json(messages_);
  root["lost_packets"] = to_json(lost_packets_);
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
