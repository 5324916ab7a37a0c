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

void add_files_of(const std::string& manifest_path, const std::string& folder,
                  const std::string& channel_id, std::vector<recorded_file>& files) {
  std::ifstream manifest(manifest_path);
  try {
    Json::Value root;
    manifest >> root;
    for (const Json::Value& entry : root["files"]) {
      if (entry["channel_id"].asString() != channel_id) continue;
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
      files.push_back(std::move(file));
    }
  } catch (const std::exception&) {
    // What can't be read can't be shown.
  }
}

}  // namespace

std::vector<recorded_file> recorded_files(const std::string& folder,
                                          const std::string& channel_id) {
  std::vector<recorded_file> files;
  std::error_code ignored;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at(folder, ignored); at != end; at.increment(ignored)) {
    const std::string name = at->path().filename().string();
    if (name.rfind("recording", 0) != 0 || at->path().extension() != ".json") continue;
    add_files_of(at->path().string(), folder, channel_id, files);
  }
  std::sort(files.begin(), files.end(), [](const recorded_file& left, const recorded_file& right) {
    return left.first_utc_ms < right.first_utc_ms;
  });
  return files;
}

}  // namespace zelta::record
