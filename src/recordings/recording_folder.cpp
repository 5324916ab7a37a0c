// SPDX-License-Identifier: Apache-2.0
#include "recordings/recording_folder.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/unique_fd.h"

namespace zelta::recordings {
namespace {

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

// A name that leads out of the folder is none of a recorder's.
bool is_plain_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool is_digits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// STEM.json of the first session, STEM_2.json of the second one, and so on.
bool is_share(const std::string& name, const std::string& stem, const std::string& ending) {
  if (name.size() < stem.size() + ending.size() || name.rfind(stem, 0) != 0 ||
      name.compare(name.size() - ending.size(), ending.size(), ending) != 0) {
    return false;
  }
  const std::string number = name.substr(stem.size(), name.size() - stem.size() - ending.size());
  return number.empty() || (number[0] == '_' && is_digits(number.substr(1)));
}

// UID_YYYYMMDDTHHMMSSmmm.jpg
bool is_picture(const std::string& name) {
  const size_t line = name.find('_');
  return line != std::string::npos && is_digits(name.substr(0, line)) && name.size() > line + 5 &&
         name.compare(name.size() - 4, 4, ".jpg") == 0;
}

// What locks nothing is held by nobody.
bool is_held(const std::string& path) {
  const base::unique_fd lock(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return lock.valid() && flock(lock.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

manifest read(const std::string& folder, const std::string& name) {
  std::ifstream file(folder + name);
  Json::Value root;
  file >> root;
  manifest made;
  made.name = name;
  made.channel_id = root["channel_id"].asString();
  for (const Json::Value& entry : root["files"]) {
    if (is_plain_name(entry["name"].asString())) made.files.push_back(file_of(entry, made, folder));
  }
  for (const Json::Value& entry : root["missing"]) made.missing.push_back(gap_of(entry, made));
  made.names = by_user<std::string>(root["names"]);
  made.pictures = by_user<uint64_t>(root["pictures"]);
  made.messages = by_user<uint64_t>(root["messages"]);
  for (const Json::Value& count : root["dropped_frames"]) made.dropped_frames += count.asUInt64();
  return made;
}

}  // namespace

bool is_manifest_name(const std::string& file_name) {
  return is_share(file_name, kPrefix, kEnding);
}

bool is_over(const std::string& folder, bool journals_may_stay) {
  std::error_code failed;
  std::filesystem::directory_iterator at(folder, failed);
  if (failed || is_held(folder)) return false;
  for (; at != std::filesystem::directory_iterator(); at.increment(failed)) {
    const std::string name = at->path().filename().string();
    if (!journals_may_stay && is_share(name, "journal", ".json")) return false;
    if (is_share(name, ".recording", ".lock") && is_held(at->path().string())) return false;
  }
  return !failed;
}

std::vector<std::string> companion_names(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code failed;
  std::filesystem::directory_iterator at(folder, failed);
  for (; !failed && at != std::filesystem::directory_iterator(); at.increment(failed)) {
    const std::string name = at->path().filename().string();
    if (is_share(name, "messages", ".jsonl") || is_picture(name) ||
        name.rfind("recording_engine.log", 0) == 0) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<manifest> read_manifests(const std::string& folder, std::vector<std::string>& errors) {
  const std::string path = folder.empty() || folder.back() == '/' ? folder : folder + "/";
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
  if (names.empty()) errors.push_back(path + " holds no recording: there is no recording.json");
  std::sort(names.begin(), names.end());
  std::vector<manifest> all;
  for (const std::string& name : names) {
    try {
      all.push_back(read(path, name));
    } catch (const std::exception& e) {
      errors.push_back(path + name + " is no manifest: " + e.what());
    }
  }
  return all;
}

}  // namespace zelta::recordings
