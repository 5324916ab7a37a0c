// SPDX-License-Identifier: Apache-2.0
#include "recorded_files.h"

#include <exception>
#include <fstream>
#include <utility>

#include <json/json.h>
#include <sys/stat.h>

namespace zelta::record {

std::vector<recorded_file> recorded_files(const std::string& folder) {
  std::vector<recorded_file> files;
  std::ifstream manifest(folder + "recording.json");
  try {
    Json::Value root;
    manifest >> root;
    for (const Json::Value& entry : root["files"]) {
      const std::string video = entry["video_codec"].asString();
      const std::string audio = entry["audio_codec"].asString();
      std::string codecs = video;
      if (!video.empty() && !audio.empty()) codecs += "+";
      codecs += audio;
      recorded_file file{entry["name"].asString(),
                         entry["uid"].asUInt(),
                         std::move(codecs),
                         entry["duration_ms"].asInt64(),
                         0,
                         entry["closed"].asString()};
      struct stat status {};
      if (stat((folder + file.name).c_str(), &status) == 0) {
        file.bytes = static_cast<uint64_t>(status.st_size);
      }
      files.push_back(std::move(file));
    }
  } catch (const std::exception&) {
    // No recorder wrote there, or the folder is gone: there is nothing to show.
    files.clear();
  }
  return files;
}

}  // namespace zelta::record
