// SPDX-License-Identifier: Apache-2.0
#include "core_service/manifest.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <utility>

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>

#include "base/log.h"
#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

constexpr int kManifestVersion = 1;
constexpr const char* kDied = "recorder died";

Json::Value to_json(const manifest_file& f) {
  Json::Value v(Json::objectValue);
  v["name"] = f.name;
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

manifest_file from_json(const Json::Value& v) {
  manifest_file f;
  f.name = v.get("name", "").asString();
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

// What the name of a file tells of it, as file_series makes names: UID or "mix", the UTC time of
// its begin, the container.
std::optional<manifest_file> file_of_name(const std::string& name) {
  static const std::regex form(
      R"((\d{1,10}|mix)_(\d{4})(\d\d)(\d\d)T(\d\d)(\d\d)(\d\d)(\d{3})\.(mp4|m4a|webm))");
  std::smatch parts;
  if (!std::regex_match(name, parts, form)) return std::nullopt;
  const auto number = [&parts](size_t part) { return std::stoi(parts[part]); };
  std::tm begin{};
  begin.tm_year = number(2) - 1900;
  begin.tm_mon = number(3) - 1;
  begin.tm_mday = number(4);
  begin.tm_hour = number(5);
  begin.tm_min = number(6);
  begin.tm_sec = number(7);
  manifest_file f;
  f.name = name;
  const uint64_t uid = parts[1] == "mix" ? 0 : std::stoull(parts[1]);
  if (uid > UINT32_MAX) return std::nullopt;
  f.uid = static_cast<uint32_t>(uid);
  f.first_utc_ms = int64_t{timegm(&begin)} * 1000 + number(8);
  const std::string ending = parts[9];
  f.kind = ending == "m4a" ? "audio" : "audio_video";
  f.video_codec = ending == "mp4" ? "h264" : "";
  f.audio_codec = ending == "webm" ? "opus" : "aac";
  return f;
}

// A writer's lease is only given on a file that nobody else has open, as a recorder would that
// records into the same folder. Who opens it in this moment makes the kernel send a signal, which
// must be one that does nothing.
bool in_use(const std::string& path) {
  const base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return !file.valid() || fcntl(file.get(), F_SETSIG, SIGURG) != 0 ||
         fcntl(file.get(), F_SETLEASE, F_WRLCK) != 0;
}

}  // namespace

manifest::manifest(std::string folder, std::string channel_id, state_writer& writer)
    : folder_(std::move(folder)), channel_id_(std::move(channel_id)), writer_(writer) {
  load();
}

void manifest::load() {
  const std::string path = folder_ + kName;
  std::ifstream file(path);
  if (!file) return;
  try {
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &root, &errors)) {
      throw Json::RuntimeError(errors);
    }
    for (const Json::Value& entry : root["files"]) add(from_json(entry));
    const Json::Value& pictures = root["pictures"];
    for (const std::string& uid : pictures.getMemberNames()) {
      pictures_[static_cast<uint32_t>(std::stoul(uid))] = pictures[uid].asUInt64();
    }
    const Json::Value& dropped = root["dropped_frames"];
    dropped_before_ = {dropped.get("pictures", 0).asUInt64(), dropped.get("coded", 0).asUInt64(),
                       dropped.get("sound", 0).asUInt64()};
    dropped_ = dropped_before_;
  } catch (const std::exception& e) {
    files_.clear();
    pictures_.clear();
    base::log_dir(folder_.c_str(), base::ERROR_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                  "%s can't be read and is kept as %s.broken: %s", kName, kName, e.what());
    std::rename(path.c_str(), (path + ".broken").c_str());
  }
  for (auto& [number, f] : files_) {
    if (f.closed.empty()) f.closed = kDied;
  }
}

// The recorder before this one may have died between making a file and writing about it, or before
// anything was in it.
void manifest::settle() {
  std::map<std::string, size_t> known;
  for (const auto& [number, f] : files_) known[f.name] = number;
  std::error_code ignored;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at(folder_, ignored); at != end; at.increment(ignored)) {
    auto found = file_of_name(at->path().filename().string());
    if (!found) continue;
    const auto listed = known.find(found->name);
    if (listed != known.end() && files_.at(listed->second).closed != kDied) continue;
    const std::string path = at->path().string();
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || in_use(path)) continue;
    if (status.st_size == 0) {
      base::log_dir(folder_.c_str(), base::WARN_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                    "%s held nothing yet when its recorder died, and goes", path.c_str());
      std::filesystem::remove(path, ignored);
      if (listed != known.end()) files_.erase(listed->second);
    } else if (listed == known.end()) {
      const int64_t written_ms = status.st_mtim.tv_sec * 1000 + status.st_mtim.tv_nsec / 1'000'000;
      found->last_utc_ms = std::max(found->first_utc_ms, written_ms);
      found->closed = kDied;
      add(std::move(*found));
    }
  }
}

void manifest::set_dropped(const dropped_counts& now) {
  dropped_ = {dropped_before_.pictures + now.pictures, dropped_before_.coded + now.coded,
              dropped_before_.sound + now.sound};
}

size_t manifest::add(manifest_file file) {
  files_.emplace(next_number_, std::move(file));
  return next_number_++;
}

void manifest::save() {
  Json::Value root(Json::objectValue);
  root["version"] = kManifestVersion;
  root["channel_id"] = channel_id_;
  Json::Value files(Json::arrayValue);
  for (const auto& [number, f] : files_) files.append(to_json(f));
  root["files"] = std::move(files);
  Json::Value pictures(Json::objectValue);
  for (const auto& [uid, count] : pictures_) {
    pictures[std::to_string(uid)] = Json::UInt64{count};
  }
  root["pictures"] = std::move(pictures);
  Json::Value dropped(Json::objectValue);
  dropped["pictures"] = Json::UInt64{dropped_.pictures};
  dropped["coded"] = Json::UInt64{dropped_.coded};
  dropped["sound"] = Json::UInt64{dropped_.sound};
  root["dropped_frames"] = std::move(dropped);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  writer_.replace(folder_ + kName, Json::writeString(writer, root) + "\n");
}

}  // namespace zelta::core_service
