// SPDX-License-Identifier: Apache-2.0
#include "fleet/client.h"

#include <algorithm>
#include <map>
#include <random>

#include "base/clocks.h"
#include "fleet/amend.h"
#include "fleet/json_text.h"
#include "fleet/names.h"

namespace zelta::fleet {
namespace {

std::string fresh_id() {
  constexpr const char* kLetters = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::random_device source;
  std::string made;
  for (int at = 0; at < 16; ++at) made += kLetters[source() % 36];
  return made;
}

}  // namespace

std::optional<std::string> client::send(job what, std::string& error) {
  if (what.id.empty()) what.id = fresh_id();
  // As a worker would read it.
  const std::optional<job> checked = job_of(text_of(what), error);
  if (!checked) return std::nullopt;
  const std::optional<stored> before = by_.recordings().get(what.id, error);
  if (!error.empty()) return std::nullopt;
  uint64_t revision = 0;
  recording_state state;
  if (before) {
    const std::optional<recording_state> known = state_of(before->value, error);
    if (known && !is_over(known->now)) {
      error = "\"" + what.id + "\" is " + name_of(known->now) +
              " already; another id makes another recording";
      return std::nullopt;
    }
    if (known) state = *known;
    revision = before->revision;
    // What was wished for the one before is over with it.
    if (!by_.wishes().put(what.id, "{}", error)) return std::nullopt;
  }
  // The queue first: a state without a job would wait for ever. By the revision, so that whoever
  // isn't sure may send it again.
  const std::string once = what.id + "-" + std::to_string(revision);
  bool is_repeat = false;
  if (!by_.publish(jobs_subject(what.label), text_of(what), once, is_repeat, error)) {
    return std::nullopt;
  }
  state.id = what.id;
  state.label = what.label;
  state.channel = what.channel;
  state.now = phase::kWaiting;
  state.since_utc_ms = base::utc_ms();
  state.reason.clear();
  state.tries = 0;
  state.first_joined_utc_ms = 0;
  // Whoever has written since knows better: a worker that has taken it.
  const change noted = by_.recordings().update(what.id, state.text(), revision, error);
  if (noted == change::kFailed) {
    error = "it is in the queue, but its state can't be written: " + error;
    return std::nullopt;
  }
  if (noted == change::kOutdated && is_repeat) {
    error = "\"" + what.id + "\" was sent twice just now, and once it is in the queue";
    return std::nullopt;
  }
  error.clear();
  return what.id;
}

std::vector<recording_state> client::list(std::string& error) {
  std::vector<recording_state> made;
  for (const stored& one : by_.recordings().all(error)) {
    std::string fault;
    const std::optional<recording_state> state = state_of(one.value, fault);
    if (state) made.push_back(*state);
  }
  std::sort(made.begin(), made.end(), [](const auto& a, const auto& b) {
    return a.since_utc_ms != b.since_utc_ms ? a.since_utc_ms > b.since_utc_ms : a.id < b.id;
  });
  return made;
}

std::optional<recording_state> client::show(const std::string& id, std::string& error) {
  const std::optional<stored> found = by_.recordings().get(id, error);
  if (!found) {
    if (error.empty()) error = "there is no job \"" + id + "\"";
    return std::nullopt;
  }
  std::optional<recording_state> state = state_of(found->value, error);
  const std::optional<stored> delivered =
      state ? by_.deliveries().get(id, error) : std::optional<stored>();
  const Json::Value known = delivered ? parsed(delivered->value) : Json::nullValue;
  if (!known.isObject()) return state;
  for (stretch& one : state->stretches) {
    const Json::Value& folders = known[one.worker];
    if (!folders.isObject() || !folders[one.folder].isInt64()) continue;
    one.delivered_utc_ms = folders[one.folder].asInt64();
  }
  return state;
}

std::vector<Json::Value> client::workers(std::string& error) {
  std::vector<Json::Value> made;
  for (const stored& one : by_.workers().all(error)) {
    Json::Value worker = parsed(one.value);
    if (worker.isObject()) made.push_back(std::move(worker));
  }
  std::sort(made.begin(), made.end(), [](const Json::Value& a, const Json::Value& b) {
    return a["worker"].asString() < b["worker"].asString();
  });
  return made;
}

std::vector<label_numbers> client::queue(std::string& error) {
  // The queue counts, as it knows of jobs that were sent by whoever doesn't write states; the
  // states tell since when.
  std::map<std::string, label_numbers> by_label;
  for (const auto& [label, of] : by_.numbers(error)) {
    by_label[label] = {label, of.waiting, of.taken, 0};
  }
  if (!error.empty()) return {};
  for (const recording_state& one : list(error)) {
    if (one.now != phase::kWaiting) continue;
    label_numbers& of = by_label[one.label];
    of.label = one.label;
    if (of.oldest_utc_ms == 0 || one.since_utc_ms < of.oldest_utc_ms) {
      of.oldest_utc_ms = one.since_utc_ms;
    }
  }
  std::vector<label_numbers> made;
  for (auto& [label, of] : by_label) made.push_back(std::move(of));
  return made;
}

bool client::ask(const std::string& subject, const Json::Value& what, bool& is_heard,
                 std::string& error) {
  const auto reply = by_.ask(subject, line_of(what), is_heard, error);
  if (!reply) return false;
  const Json::Value answer = parsed(*reply);
  if (answer.isObject() && answer["ok"].isBool() && answer["ok"].asBool()) return true;
  error = answer.isObject() && answer["result"].isString() ? answer["result"].asString()
                                                           : "the answer is no JSON";
  return false;
}

client::outcome client::command(const std::string& id, const Json::Value& what,
                                std::string& error) {
  const std::optional<recording_state> state = show(id, error);
  if (!state) return outcome::kFailed;
  if (is_over(state->now)) {
    error = "it is over: " + std::string(name_of(state->now));
    return outcome::kFailed;
  }
  const bool is_leave = what["command"] == "leave";
  // First where it lasts: whoever has it now may die before its end is known.
  const auto leave = [](Json::Value& wishes) { wishes["leave"] = true; };
  if (is_leave && !amend(by_.wishes(), id, leave, error)) return outcome::kFailed;
  bool is_heard = false;
  if (ask(command_subject(id), what, is_heard, error)) return outcome::kDone;
  if (is_leave) return outcome::kLater;
  if (!is_heard) error = "nobody records it now";
  return outcome::kFailed;
}

bool client::note_delivered(const std::string& folder, const std::string& worker,
                            std::string& error) {
  const std::string id = folder.substr(folder.rfind('/') + 1);
  const std::optional<recording_state> state = show(id, error);
  if (!state) return false;
  const auto is_meant = [&](const stretch& one) {
    return one.folder == folder && (worker.empty() || one.worker == worker);
  };
  const auto& all = state->stretches;
  if (std::none_of(all.begin(), all.end(), is_meant)) {
    error = "no stretch of \"" + cut(id) + "\" is in " + folder;
    return false;
  }
  // Beside the state, which whoever records it writes.
  const auto add = [&](Json::Value& known) {
    for (const stretch& one : all) {
      if (is_meant(one)) known[one.worker][folder] = Json::Int64{base::utc_ms()};
    }
  };
  if (!amend(by_.deliveries(), id, add, error)) return false;
  Json::Value event;
  event["event"] = "delivered";
  event["job"] = id;
  event["folder"] = folder;
  if (!worker.empty()) event["worker"] = worker;
  bool ignored = false;
  return by_.publish(events_subject(id), line_of(event), "", ignored, error);
}

bool client::drain(const std::string& worker, bool handover, std::string& error) {
  Json::Value what;
  what["command"] = "drain";
  what["handover"] = handover;
  bool is_heard = false;
  if (ask(worker_subject(worker), what, is_heard, error)) return true;
  if (!is_heard) error = "there is no worker \"" + worker + "\"";
  return false;
}

}  // namespace zelta::fleet
