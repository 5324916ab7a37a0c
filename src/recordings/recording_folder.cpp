// SPDX-License-Identifier: Apache-2.0
#include "recordings/recording_folder.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <json/json.h>
#include <sys/stat.h>

#include "recordings/crc_text.h"
#include "recordings/folder_state.h"
#include "recordings/regular_file.h"

namespace zelta::recordings {
namespace {

constexpr size_t kMostBytes = size_t{64} << 20U;
constexpr const char* kPrefix = "recording";
constexpr const char* kEnding = ".json";

template <class Value>
std::map<uint32_t, Value> by_user(const Json::Value& object) {
  std::map<uint32_t, Value> made;
  for (const std::string& key : object.getMemberNames()) {
    uint32_t uid = 0;
    const char* const end = key.data() + key.size();
    const auto [stopped, failed] = std::from_chars(key.data(), end, uid);
    if (failed == std::errc() && stopped == end) made[uid] = object[key].as<Value>();
  }
  return made;
}

media_file file_of(const Json::Value& entry, const manifest& of, const std::string& folder) {
  media_file made;
  made.name = entry["name"].asString();
  made.channel_id = entry.get("channel_id", of.channel_id).asString();
  made.uid = entry["uid"].asUInt();
  made.kind = entry["kind"].asString();
  made.video_codec = entry["video_codec"].asString();
  made.audio_codec = entry["audio_codec"].asString();
  made.width = entry["width"].asInt();
  made.height = entry["height"].asInt();
  made.first_utc_ms = entry["first_utc_ms"].asInt64();
  made.last_utc_ms = entry["last_utc_ms"].asInt64();
  made.closed = entry["closed"].asString();
  // Of a size that isn't told nothing can be said by it.
  if (entry["bytes"].isUInt64()) {
    made.crc32 = crc_of_text(entry["crc32"].asString());
    made.closed_bytes = entry["bytes"].asUInt64();
  }
  struct stat status {};
  if (stat((folder + made.name).c_str(), &status) == 0) {
    made.bytes = static_cast<uint64_t>(status.st_size);
  }
  return made;
}

gap gap_of(const Json::Value& entry, const manifest& of) {
  gap made;
  made.uid = entry["uid"].asUInt();
  made.channel_id = entry.get("channel_id", of.channel_id).asString();
  made.medium = entry["medium"].asString();
  made.codec = entry["codec"].asString();
  made.reason = entry["reason"].asString();
  made.utc_ms = entry["utc_ms"].asInt64();
  made.until_utc_ms = entry["until_utc_ms"].asInt64();
  return made;
}

std::string with_slash(const std::string& folder) {
  return folder.empty() || folder.back() == '/' ? folder : folder + "/";
}

// Throws what there is to say of it.
Json::Value parsed(const std::string& folder, const std::string& name) {
  const auto read = read_regular(folder, name, kMostBytes);
  if (!read) throw std::system_error(errno, std::generic_category());
  if (read->is_cut) {
    throw std::length_error("it has more than " + std::to_string(kMostBytes >> 20U) + " MiB");
  }
  Json::Value root;
  std::istringstream(read->text) >> root;
  return root;
}

manifest read(const std::string& folder, const std::string& name) {
  const Json::Value root = parsed(folder, name);
  manifest made;
  made.name = name;
  made.channel_id = root["channel_id"].asString();
  for (const Json::Value& entry : root["files"]) {
    if (is_media_name(entry["name"].asString())) made.files.push_back(file_of(entry, made, folder));
  }
  for (const Json::Value& entry : root["missing"]) made.missing.push_back(gap_of(entry, made));
  made.names = by_user<std::string>(root["names"]);
  made.pictures = by_user<uint64_t>(root["pictures"]);
  made.messages = by_user<uint64_t>(root["messages"]);
  made.lost_packets = by_user<uint64_t>(root["lost_packets"]);
  const Json::Value& dropped = root["dropped_frames"];
  made.dropped = {dropped["pictures"].asUInt64(), dropped["coded"].asUInt64(),
                  dropped["sound"].asUInt64()};
  for (const Json::Value& entry : root["sessions"]) made.sessions.push_back(session_of(entry));
  made.lag_of_packets_ms = root["lag"]["packets_ms"].asInt64();
  made.lag_of_disk_ms = root["lag"]["disk_ms"].asInt64();
  return made;
}

}  // namespace

session session_of(const Json::Value& entry) {
  return {entry["channel_id"].asString(), entry["began_utc_ms"].asInt64(),
          entry["ended_utc_ms"].asInt64(), entry["ended"].asString()};
}

bool is_manifest_name(const std::string& file_name) {
  const std::string start = kPrefix;
  const std::string end = kEnding;
  if (file_name.size() < start.size() + end.size() || file_name.rfind(start, 0) != 0 ||
      file_name.compare(file_name.size() - end.size(), end.size(), end) != 0) {
    return false;
  }
  const std::string number =
      file_name.substr(start.size(), file_name.size() - start.size() - end.size());
  if (number.empty()) return true;
  return number.size() > 1 && number[0] == '_' &&
         number.find_first_not_of("0123456789", 1) == std::string::npos;
}

std::vector<std::string> find_manifests(const std::string& folder,
                                        std::vector<std::string>& errors) {
  const std::string path = with_slash(folder);
  std::vector<std::string> names;
  std::error_code failed;
  const std::filesystem::directory_iterator end;
  std::filesystem::directory_iterator at(path, failed);
  if (failed) {
    errors.push_back(path + " can't be read: " + failed.message());
    return {};
  }
  for (; at != end; at.increment(failed)) {
    const std::string name = at->path().filename().string();
    if (is_manifest_name(name)) names.push_back(name);
  }
  if (failed) errors.push_back(path + " can't be read to its end: " + failed.message());
  if (names.empty()) errors.push_back(path + " holds no recording: there is no recording.json");
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<manifest> read_manifest(const std::string& folder, const std::string& name,
                                      std::vector<std::string>& errors) {
  const std::string path = with_slash(folder);
  try {
    return read(path, name);
  } catch (const std::exception& e) {
    errors.push_back(path + name + " is no manifest: " + e.what());
    return std::nullopt;
  }
}

std::vector<manifest> read_manifests(const std::string& folder, std::vector<std::string>& errors) {
  std::vector<manifest> all;
  for (const std::string& name : find_manifests(folder, errors)) {
    if (auto one = read_manifest(folder, name, errors)) all.push_back(std::move(*one));
  }
  return all;
}

}  // namespace zelta::recordings
