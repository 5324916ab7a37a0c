// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/publisher.h"

#include "core_service/channel/janus/json_fields.h"
#include "core_service/channel/user_id.h"

namespace zelta::core_service::janus {
namespace {

std::string streams_of(const Json::Value& one) {
  std::string all;
  for (const Json::Value& stream : list_in(one, "streams")) {
    all += text_in(stream, "mid") + " " + text_in(stream, "type") + " " + text_in(stream, "codec") +
           (flag_in(stream, "disabled") ? " off\n" : "\n");
  }
  return all;
}

}  // namespace

std::string publisher::text() const {
  const std::string id = "feed " + key;
  return is_user_name(name) ? "\"" + name + "\" (" + id + ")" : id;
}

std::vector<publisher> publishers_in(const Json::Value& data) {
  std::vector<publisher> all;
  for (const Json::Value& one : list_in(data, "publishers")) {
    if (!one.isObject()) continue;
    publisher made;
    made.feed = one["id"];
    made.key = id_text(made.feed);
    if (!is_user_name(made.key)) continue;
    made.name = text_in(one, "display");
    made.uid = uid_of_publisher(made.name, made.key);
    made.streams = streams_of(one);
    all.push_back(std::move(made));
  }
  return all;
}

uint32_t uid_of_publisher(const std::string& name, const std::string& feed) {
  if (const auto number = user_number(name)) return *number;
  if (const auto number = user_number(feed)) return *number;
  return uid_of(name.empty() ? feed : name);
}

}  // namespace zelta::core_service::janus
