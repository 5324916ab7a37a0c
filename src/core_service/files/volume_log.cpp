// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/volume_log.h"

#include <utility>

#include <json/json.h>

#include "core_service/media/timeline.h"

namespace zelta::core_service::files {

volume_log::volume_log(std::string path, std::string channel_id, base::event_loop& loop,
                       file_writer& disk, std::function<void(int error)> failed)
    : line_log(std::move(path), loop, disk, std::move(failed)),
      channel_id_(std::move(channel_id)) {}

bool volume_log::add(media::media_time end, const std::map<uint32_t, uint32_t>& volumes) {
  if (steps_ == 0) began_utc_ms_ = media::utc_ms_of(end) - kStepMs;
  for (const auto& [uid, volume] : volumes) {
    std::vector<uint32_t>& of_user = line_[uid];
    of_user.resize(steps_);
    of_user.push_back(volume);
  }
  return ++steps_ < kStepsOfLine || flush();
}

bool volume_log::flush() {
  const size_t steps = std::exchange(steps_, 0);
  if (line_.empty()) return true;
  Json::Value line(Json::objectValue);
  line["utc_ms"] = Json::Int64{began_utc_ms_};
  line["step_ms"] = kStepMs;
  line["channel_id"] = channel_id_;
  for (auto& [uid, volumes] : std::exchange(line_, {})) {
    Json::Value& row = line["volumes"][std::to_string(uid)];
    for (size_t i = 0; i < steps; ++i) row.append(i < volumes.size() ? volumes[i] : 0U);
  }
  return line_log::add(line);
}

}  // namespace zelta::core_service::files
