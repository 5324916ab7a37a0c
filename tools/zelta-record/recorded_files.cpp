// SPDX-License-Identifier: Apache-2.0
#include "recorded_files.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <json/json.h>
#include <sys/stat.h>

namespace zelta::record {
namespace {

recorded_file file_of(const Json::Value& entry, const std::string& folder) {
  const std::string video = entry["video_codec"].asString();
  const std::string audio = entry["audio_codec"].asString();
  std::string codecs = video;
  if (!video.empty() && !audio.empty()) codecs += "+";
  codecs += audio;
  recorded_file file{
      entry["name"].asString(),        entry["uid"].asUInt(),          std::move(codecs),
      entry["first_utc_ms"].asInt64(), entry["duration_ms"].asInt64(), 0,
      entry["closed"].asString()};
  struct stat status {};
  if (stat((folder + file.name).c_str(), &status) == 0) {
    file.bytes = static_cast<uint64_t>(status.st_size);
  }
  return file;
}

void add_manifest(const std::string& path, const std::string& folder, const std::string& channel_id,
                  recorded& all) {
  std::ifstream manifest(path);
  try {
    Json::Value root;
    manifest >> root;
    const auto is_ours = [&](const Json::Value& entry) {
      return entry.get("channel_id", root["channel_id"]).asString() == channel_id;
    };
    for (const Json::Value& entry : root["files"]) {
      if (is_ours(entry)) all.files.push_back(file_of(entry, folder));
    }
    for (const Json::Value& entry : root["missing"]) {
      if (!is_ours(entry)) continue;
      all.missing.push_back({entry["uid"].asUInt(), entry["medium"].asString(),
                             entry["codec"].asString(), entry["reason"].asString(),
                             entry["utc_ms"].asInt64()});
    }
    if (root["channel_id"].asString() != channel_id) return;
    for (const std::string& uid : root["pictures"].getMemberNames()) {
      all.pictures[static_cast<uint32_t>(std::stoul(uid))] += root["pictures"][uid].asUInt64();
    }
    for (const Json::Value& count : root["dropped_frames"]) all.dropped_frames += count.asUInt64();
  } catch (const std::exception&) {
    // What can't be read can't be shown.
  }
}

}  // namespace

uint64_t recorded::bytes() const {
  uint64_t sum = 0;
  for (const recorded_file& file : files) sum += file.bytes;
  return sum;
}

int64_t recorded::duration_ms() const {
  int64_t end = files.empty() ? 0 : files.front().first_utc_ms;
  for (const recorded_file& file : files) end = std::max(end, file.first_utc_ms + file.duration_ms);
  return files.empty() ? 0 : end - files.front().first_utc_ms;
}

recorded read_recorded(const std::string& folder, const std::string& channel_id) {
  recorded all;
  std::error_code ignored;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at(folder, ignored); at != end; at.increment(ignored)) {
    const std::string name = at->path().filename().string();
    if (name.rfind("recording", 0) != 0 || at->path().extension() != ".json") continue;
    add_manifest(at->path().string(), folder, channel_id, all);
  }
  std::sort(all.files.begin(), all.files.end(),
            [](const recorded_file& left, const recorded_file& right) {
              return left.first_utc_ms < right.first_utc_ms;
            });
  return all;
}

recorded without(recorded all, const recorded& before) {
  const auto remove = [](auto& from, const auto& known, auto same) {
    from.erase(std::remove_if(from.begin(), from.end(),
                              [&](const auto& one) {
                                return std::any_of(
                                    known.begin(), known.end(),
                                    [&](const auto& other) { return same(one, other); });
                              }),
               from.end());
  };
  remove(all.files, before.files,
         [](const recorded_file& a, const recorded_file& b) { return a.name == b.name; });
  remove(all.missing, before.missing, [](const missing_medium& a, const missing_medium& b) {
    return a.uid == b.uid && a.utc_ms == b.utc_ms && a.reason == b.reason;
  });
  all.dropped_frames -= std::min(all.dropped_frames, before.dropped_frames);
  for (const auto& [uid, count] : before.pictures) {
    const auto found = all.pictures.find(uid);
    if (found == all.pictures.end()) continue;
    found->second -= std::min(found->second, count);
    if (found->second == 0) all.pictures.erase(found);
  }
  return all;
}

std::string fault_of(const recorded_file& file) {
  if (file.bytes == 0) return "is empty";
  if (file.closed.empty()) return "was not completed: the recorder was killed";
  if (file.closed == "recorder died") return "ends early: the recorder died";
  if (file.duration_ms == 0) return "has no media in it";
  return "";
}

}  // namespace zelta::record
