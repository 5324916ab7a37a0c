// SPDX-License-Identifier: Apache-2.0
#include "recordings/message_log.h"

#include <exception>
#include <fstream>
#include <memory>
#include <optional>

#include <json/json.h>

namespace zelta::recordings {
namespace {

std::optional<message> message_of(const std::string& line, Json::CharReader& reader) {
  try {
    Json::Value entry;
    if (!reader.parse(line.data(), line.data() + line.size(), &entry, nullptr)) return std::nullopt;
    if (!entry.isObject() || !entry["text"].isString()) return std::nullopt;
    message made;
    made.utc_ms = entry["utc_ms"].asInt64();
    made.uid = entry["uid"].asUInt();
    made.channel_id = entry["channel_id"].asString();
    made.label = entry["label"].asString();
    made.text = entry["text"].asString();
    return made;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::string message_log_of(const std::string& manifest_name) {
  constexpr size_t kStart = sizeof "recording" - 1;
  const size_t end = manifest_name.rfind(".json");
  return "messages" + manifest_name.substr(kStart, end - kStart) + ".jsonl";
}

std::vector<message> read_messages(const std::string& folder, const std::string& manifest_name,
                                   size_t most, std::vector<std::string>& errors) {
  const std::string name = message_log_of(manifest_name);
  std::ifstream file((folder.empty() || folder.back() == '/' ? folder : folder + "/") + name);
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::vector<message> all;
  size_t bad = 0;
  size_t beyond = 0;
  for (std::string line; std::getline(file, line);) {
    // Its writer may be in the middle of the last.
    if (line.empty() || file.eof()) continue;
    if (all.size() == most) {
      ++beyond;
    } else if (auto one = message_of(line, *reader)) {
      all.push_back(std::move(*one));
    } else {
      ++bad;
    }
  }
  if (bad > 0) errors.push_back(name + ": " + std::to_string(bad) + " lines are no messages");
  if (beyond > 0) {
    errors.push_back(name + ": " + std::to_string(beyond) + " messages beyond the first " +
                     std::to_string(most) + " aren't shown");
  }
  return all;
}

}  // namespace zelta::recordings
