// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/message_log.h"

#include <utility>

#include <json/json.h>

#include "core_service/media/timeline.h"

namespace zelta::core_service::files {

message_log::message_log(std::string path, std::string channel_id, base::event_loop& loop,
                         file_writer& disk, std::function<void(int error)> failed)
    : line_log(std::move(path), loop, disk, std::move(failed)),
      channel_id_(std::move(channel_id)) {}

bool message_log::add(uint32_t uid, const media::user_text& what) {
  Json::Value line(Json::objectValue);
  line["utc_ms"] = Json::Int64{media::utc_ms_of(what.time)};
  line["uid"] = uid;
  line["channel_id"] = channel_id_;
  line["label"] = what.label;
  line["text"] = what.text;
  return line_log::add(line);
}

}  // namespace zelta::core_service::files
