// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "fleet/broker.h"
#include "fleet/client.h"
#include "fleet/json_text.h"
#include "fleet/names.h"
#include "fleet_metrics.h"
#include "tables.h"
#include "zelta-record/ending_signals.h"

namespace zelta::fleet {
namespace {

// Of workers' reports, when this program is the first that asks.
constexpr std::chrono::seconds kReportsLast{15};

exit_status failed(const std::string& error) {
  return fail(error.c_str());
}

std::string text_in(const std::string& path, std::string& error) {
  std::ifstream file(path);
  std::ostringstream all;
  if (!file || !(all << file.rdbuf())) error = path + " can't be read";
  return all.str();
}

// ---- The commands --------------------------------------------------------------------------

std::string job_text(const options& o, std::string& error) {
  if (!o.job_path.empty()) return text_in(o.job_path, error);
  Json::Value made;
  made["channel"] = o.asked.channel;
  if (!o.asked.id.empty()) made["id"] = o.asked.id;
  if (!o.asked.server.empty()) made["server"] = o.asked.server;
  if (o.asked.label != kAnyLabel && !o.asked.label.empty()) made["label"] = o.asked.label;
  if (!o.asked.key.empty()) made["key"] = o.asked.key;
  if (!o.asked.secret.empty()) made["secret"] = o.asked.secret;
  if (!o.asked.settings.empty()) made["settings"] = o.asked.settings;
  if (!o.asked.root.empty()) made["root"] = o.asked.root;
  if (o.asked.duration_s > 0) made["duration_s"] = o.asked.duration_s;
  if (o.asked.expected_users > 0) made["expect"]["users"] = o.asked.expected_users;
  for (const std::string& one : o.sets) {
    const size_t equal = one.find('=');
    const std::string value = equal == std::string::npos ? "true" : one.substr(equal + 1);
    Json::Value& to = made["options"][one.substr(0, equal)];
    const bool is_number = !value.empty() && value.find_first_not_of("0123456789") == value.npos;
    if (value == "true" || value == "false") {
      to = value == "true";
    } else if (is_number && value.size() < 10) {
      to = Json::UInt(std::stoul(value));
    } else {
      to = value;
    }
  }
  return line_of(made);
}

exit_status record(client& by, const options& o) {
  std::string error;
  const std::string text = job_text(o, error);
  if (!error.empty()) return failed(error);
  Json::Value with_id;
  // One that has no id gets one; a worker takes none without.
  std::istringstream stream(text);
  Json::CharReaderBuilder strict;
  Json::CharReaderBuilder::strictMode(&strict.settings_);
  if (!Json::parseFromStream(strict, stream, &with_id, &error)) {
    return failed((o.job_path.empty() ? "the job" : o.job_path) + ": " + error);
  }
  const bool has_id = with_id.isObject() && with_id.isMember("id");
  if (with_id.isObject() && !has_id) with_id["id"] = "unnamed";
  std::optional<job> what = job_of(line_of(with_id), error);
  if (!what) return failed(error);
  if (!has_id) what->id.clear();
  const auto id = by.send(*what, error);
  if (!id) return failed(error);
  std::printf(o.json ? "{\"id\":\"%s\"}\n" : "%s\n", id->c_str());
  return kDone;
}

exit_status list(client& by, const options& o) {
  std::string error;
  std::vector<recording_state> found;
  for (recording_state& one : by.list(error)) {
    if (o.all || !is_over(one.now)) found.push_back(std::move(one));
  }
  if (!error.empty()) return failed(error);
  if (!o.json) print(table_of(found));
  for (const recording_state& one : found) {
    if (o.json) std::printf("%s\n", one.text().c_str());
  }
  return kDone;
}

exit_status show(client& by, const options& o) {
  std::string error;
  const auto found = by.show(o.id, error);
  if (!found) return failed(error);
  if (o.json) {
    std::printf("%s\n", found->text().c_str());
    return kDone;
  }
  std::printf("%s: channel \"%s\", %s for %s%s%s\n", found->id.c_str(), found->channel.c_str(),
              name_of(found->now), age_of(found->since_utc_ms).c_str(),
              found->reason.empty() ? "" : ": ", found->reason.c_str());
  print(table_of_stretches(*found));
  return kDone;
}

exit_status workers(client& by, const options& o) {
  std::string error;
  const std::vector<Json::Value> found = by.workers(error);
  if (!error.empty()) return failed(error);
  if (!o.json) print(table_of_workers(found));
  for (const Json::Value& one : found) {
    if (o.json) std::printf("%s\n", line_of(one).c_str());
  }
  return kDone;
}

exit_status queue(client& by, const options& o) {
  std::string error;
  const std::vector<label_numbers> found = by.queue(error);
  if (!error.empty()) return failed(error);
  table rows{{"LABEL", "WAITING", "OLDEST", "TAKEN"}};
  for (const label_numbers& one : found) {
    if (o.json) {
      Json::Value made;
      made["label"] = one.label;
      made["waiting"] = Json::UInt64{one.waiting};
      made["taken"] = Json::UInt64{one.taken};
      made["oldest_utc_ms"] = Json::Int64{one.oldest_utc_ms};
      std::printf("%s\n", line_of(made).c_str());
    }
    rows.push_back({one.label, std::to_string(one.waiting),
                    one.oldest_utc_ms == 0 ? "-" : age_of(one.oldest_utc_ms),
                    std::to_string(one.taken)});
  }
  if (!o.json) print(rows);
  return kDone;
}

exit_status command(client& by, const options& o) {
  std::string error;
  Json::Value what;
  what["command"] = o.command;
  if (o.command == "layout") {
    std::istringstream text(text_in(o.layout_path, error));
    const Json::CharReaderBuilder builder;
    if (error.empty()) Json::parseFromStream(builder, text, &what["layout"], &error);
    if (!error.empty()) return failed(o.layout_path + ": " + error);
  }
  if (o.command == "background") {
    what["uid"] = o.uid;
    what["image"] = o.image;
  }
  const client::outcome made = by.command(o.id, what, error);
  if (made == client::outcome::kFailed) return failed(o.id + ": " + error);
  if (made == client::outcome::kLater && !o.json) {
    std::printf("%s: nobody records it now; it ends as soon as somebody takes it up\n",
                o.id.c_str());
  }
  return kDone;
}

exit_status drain(client& by, const options& o) {
  std::string error;
  return by.drain(o.id, o.handover, error) ? kDone : failed(error);
}

exit_status delivered(client& by, const options& o) {
  std::string error;
  return by.note_delivered(o.folder, o.id, error) ? kDone : failed(error);
}

exit_status watch(broker& by, const options& o) {
  std::string error;
  const std::atomic<bool> stop{false};
  by.recordings().watch(
      stop,
      [&o](const stored* one) {
        if (one == nullptr || one->deleted) return;
        std::string fault;
        const auto state = state_of(one->value, fault);
        if (!state) return;
        std::printf("%s\n", o.json ? one->value.c_str() : line_of(*state).c_str());
        std::fflush(stdout);
      },
      error);
  return error.empty() ? kDone : failed(error);
}

// Until a signal, which isn't a failure of what others collect.
exit_status serve_metrics(const broker& from, client& by, const options& o) {
  sigset_t ending;
  sigemptyset(&ending);
  for (const int one : record::ending_signals()) sigaddset(&ending, one);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  std::string error;
  const auto server = metrics::metrics_server::make(o.address, error);
  if (!server) return failed("metrics: " + error);
  const auto numbers = std::make_shared<fleet_metrics>(by);
  server->add(numbers);
  // Whoever starts it anew may have other credentials for it.
  constexpr timespec kLook{1, 0};
  while (sigtimedwait(&ending, nullptr, &kLook) < 0) {
    if (from.is_shut_out(error)) return failed(error);
  }
  return kDone;
}

}  // namespace

exit_status run_command(const options& of) {
  std::string error;
  const auto by = broker::connect(of.nats, error);
  if (!by || !by->prepare(kReportsLast, error)) return failed(error);
  client asks(*by);
  switch (of.what) {
    case action::kRecord:
      return record(asks, of);
    case action::kList:
      return list(asks, of);
    case action::kShow:
      return show(asks, of);
    case action::kWatch:
      return watch(*by, of);
    case action::kWorkers:
      return workers(asks, of);
    case action::kQueue:
      return queue(asks, of);
    case action::kMetrics:
      return serve_metrics(*by, asks, of);
    case action::kDrain:
      return drain(asks, of);
    case action::kDelivered:
      return delivered(asks, of);
    case action::kCommand:
    case action::kUp:
      break;
  }
  return command(asks, of);
}

}  // namespace zelta::fleet
