// SPDX-License-Identifier: Apache-2.0
#include "core_service/manifest.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/log.h"
#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

constexpr int kManifestVersion = 1;
constexpr const char* kName = "recording.json";

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

// Writes and syncs, so that the rename that follows never makes an empty file the true one.
bool write_whole(const std::string& path, const std::string& text) {
  const base::unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!file.valid()) return false;
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    done += static_cast<size_t>(written);
  }
  return fsync(file.get()) == 0;
}

}  // namespace

manifest::manifest(std::string folder, std::string channel_id)
    : folder_(std::move(folder)), channel_id_(std::move(channel_id)) {
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
  } catch (const std::exception& e) {
    files_.clear();
    base::log_dir(folder_.c_str(), base::ERROR_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                  "%s can't be read and is kept as %s.broken: %s", kName, kName, e.what());
    std::rename(path.c_str(), (path + ".broken").c_str());
  }
  for (auto& [number, f] : files_) {
    if (f.closed.empty()) f.closed = "recorder died";
  }
}

size_t manifest::add(manifest_file file) {
  files_.emplace(next_number_, std::move(file));
  return next_number_++;
}

bool manifest::save() {
  Json::Value root(Json::objectValue);
  root["version"] = kManifestVersion;
  root["channel_id"] = channel_id_;
  Json::Value files(Json::arrayValue);
  for (const auto& [number, f] : files_) files.append(to_json(f));
  root["files"] = std::move(files);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  const std::string path = folder_ + kName;
  const std::string fresh = path + ".new";
  const bool saved = write_whole(fresh, Json::writeString(writer, root) + "\n") &&
                     std::rename(fresh.c_str(), path.c_str()) == 0;
  if (!saved && !std::exchange(failed_, true)) {
    base::log_dir(folder_.c_str(), base::ERROR_LOG, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                  "can't write %s: %s", path.c_str(), std::strerror(errno));
  }
  if (saved) failed_ = false;
  return saved;
}

}  // namespace zelta::core_service
