// SPDX-License-Identifier: Apache-2.0
#include "fleet/recording_state.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <memory>

#include <json/json.h>

namespace zelta::fleet {
namespace {

constexpr const char* kPhases[] = {"waiting", "taken",  "recording", "ending",
                                   "ended",   "failed", "refused"};
// Of a job that dies with each worker that takes it.
constexpr size_t kMostStretches = 200;

Json::Value json_of(const stretch& of) {
  Json::Value made;
  made["worker"] = of.worker;
  made["folder"] = of.folder;
  made["sequence"] = Json::UInt64{of.sequence};
  made["delivered"] = Json::UInt64{of.delivered};
  made["taken_utc_ms"] = Json::Int64{of.taken_utc_ms};
  made["joined_utc_ms"] = Json::Int64{of.joined_utc_ms};
  made["ended_utc_ms"] = Json::Int64{of.ended_utc_ms};
  made["delivered_utc_ms"] = Json::Int64{of.delivered_utc_ms};
  made["status"] = of.status;
  made["reason"] = of.reason;
  return made;
}

stretch stretch_of(const Json::Value& from) {
  stretch made;
  made.worker = from["worker"].asString();
  made.folder = from["folder"].asString();
  made.sequence = from["sequence"].asUInt64();
  made.delivered = from["delivered"].asUInt64();
  made.taken_utc_ms = from["taken_utc_ms"].asInt64();
  made.joined_utc_ms = from["joined_utc_ms"].asInt64();
  made.ended_utc_ms = from["ended_utc_ms"].asInt64();
  made.delivered_utc_ms = from["delivered_utc_ms"].asInt64();
  made.status = from.get("status", -1).asInt();
  made.reason = from["reason"].asString();
  return made;
}

}  // namespace

const char* name_of(phase of) {
  return kPhases[static_cast<size_t>(of)];
}

std::string recording_state::text() const {
  Json::Value made;
  made["version"] = 1;
  made["id"] = id;
  made["label"] = label;
  made["channel"] = channel;
  made["state"] = name_of(now);
  made["sequence"] = Json::UInt64{sequence};
  made["since_utc_ms"] = Json::Int64{since_utc_ms};
  made["first_joined_utc_ms"] = Json::Int64{first_joined_utc_ms};
  made["users"] = users;
  made["files"] = Json::UInt64{files};
  made["losses"] = Json::UInt64{losses};
  made["tries"] = tries;
  made["reason"] = reason;
  made["stretches"] = Json::arrayValue;
  const size_t first = stretches.size() - std::min(stretches.size(), kMostStretches);
  for (size_t at = first; at < stretches.size(); ++at) {
    made["stretches"].append(json_of(stretches[at]));
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, made);
}

std::optional<recording_state> state_of(const std::string& text, std::string& error) {
  try {
    Json::Value from;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &from, &error)) return std::nullopt;
    recording_state made;
    made.id = from["id"].asString();
    made.label = from["label"].asString();
    made.channel = from["channel"].asString();
    const std::string name = from["state"].asString();
    const auto* const found = std::find(std::begin(kPhases), std::end(kPhases), name);
    if (found == std::end(kPhases)) {
      error = "\"" + name.substr(0, 100) + "\" is no state";
      return std::nullopt;
    }
    made.now = static_cast<phase>(found - std::begin(kPhases));
    made.sequence = from["sequence"].asUInt64();
    made.since_utc_ms = from["since_utc_ms"].asInt64();
    made.first_joined_utc_ms = from["first_joined_utc_ms"].asInt64();
    made.users = from["users"].asInt();
    made.files = from["files"].asUInt64();
    made.losses = from["losses"].asUInt64();
    made.tries = from["tries"].asInt();
    made.reason = from["reason"].asString();
    for (const Json::Value& one : from["stretches"]) made.stretches.push_back(stretch_of(one));
    return made;
  } catch (const std::exception& e) {
    error = e.what();
    return std::nullopt;
  }
}

}  // namespace zelta::fleet
