// SPDX-License-Identifier: Apache-2.0
#include "recordings/message_log.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>

#include <json/json.h>

#include "recordings/regular_file.h"

namespace zelta::recordings {
namespace {

constexpr size_t kMostBytes = size_t{64} << 20U;
// What a data channel carries at once, escaped, is less.
constexpr size_t kLongestLine = size_t{1} << 20U;

std::optional<message> message_of(std::string_view line, Json::CharReader& reader) {
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
  const auto log = read_regular(folder, name, kMostBytes);
  if (!log) {
    if (errno != ENOENT) errors.push_back(name + " can't be read: " + std::strerror(errno));
    return {};
  }
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::vector<message> all;
  size_t bad = 0;
  size_t beyond = 0;
  // Its writer may be in the middle of the last.
  for (size_t at = 0, end = 0; (end = log->text.find('\n', at)) != std::string::npos;
       at = end + 1) {
    const std::string_view line(log->text.data() + at, end - at);
    if (line.empty()) continue;
    if (all.size() == most) {
      ++beyond;
    } else if (auto one = line.size() > kLongestLine ? std::nullopt : message_of(line, *reader)) {
      all.push_back(std::move(*one));
    } else {
      ++bad;
    }
  }
  if (bad > 0) errors.push_back(name + ": " + std::to_string(bad) + " lines are no messages");
  if (log->is_cut) {
    errors.push_back(name + ": what is beyond its first " + std::to_string(kMostBytes >> 20U) +
                     " MiB isn't shown");
  }
  if (beyond > 0) {
    errors.push_back(name + ": " + std::to_string(beyond) + " messages beyond the first " +
                     std::to_string(most) + " aren't shown");
  }
  return all;
}

}  // namespace zelta::recordings
