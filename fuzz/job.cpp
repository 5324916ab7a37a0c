// SPDX-License-Identifier: Apache-2.0
// What comes to workers from others: jobs, which anybody may have put into the queue, and states,
// which workers of other versions wrote. What is taken stays within what a recorder may be told,
// and comes back as it is said.
#include "fleet/job.h"

#include <algorithm>

#include "fleet/names.h"
#include "fleet/recording_state.h"
#include "fleet/worker_settings.h"
#include "support/temp_dir.h"
#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  return {
      R"({"id": "a-1", "channel": "grüße", "server": "whip:0.0.0.0:1", "label": "gpu", "key": "k",
        "secret": "s", "settings": "big", "root": "nas", "duration_s": 1.5, "expect": {"users": 3},
        "layout": {"regions": []}, "options": {"chunk": 5, "is-audio-only": true,
        "mix-resolution": "640x360"}})",
      R"({"version": 1, "id": "a", "label": "any", "channel": "c", "state": "recording",
        "since_utc_ms": 1764000000123, "first_joined_utc_ms": 1, "users": 2, "files": 3, "losses": 4,
        "tries": 5, "reason": "why", "stretches": [{"worker": "w", "folder": "/f", "sequence": 6,
        "delivered": 7, "taken_utc_ms": 8, "joined_utc_ms": 9, "ended_utc_ms": 10, "status": 5,
        "reason": "killed"}, {"worker": "v"}]})",
      R"({"name": "w1", "root": "/", "roots": {"n": "/"}, "settings": {"s": "/s"}, "labels": ["any"],
        "credentials": {"k": "/k"}, "servers": ["test:"], "server": "test:", "recorder": "/bin/true",
        "lease_ms": 1500, "most_tries": 2, "most_jobs": 3, "busy_share": 1, "free_memory_share": 0,
        "free_disk_mib": 5, "nats": {"urls": ["nats://a"], "replicas": 3}})",
  };
}

namespace {

bool is_line(const std::string& text) {
  return text.size() <= 1024 && std::none_of(text.begin(), text.end(), [](char c) {
           return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
         });
}

void try_job(const std::string& text) {
  std::string error;
  const auto made = fleet::job_of(text, error);
  require(made.has_value() == error.empty(), "an error with a job, or none without");
  if (!made) return;
  require(fleet::is_name(made->id) && fleet::is_name(made->label), "what is no subject");
  for (const std::string* const name : {&made->key, &made->secret, &made->settings, &made->root}) {
    require(name->empty() || fleet::is_name(*name), "a name that could be a path");
  }
  require(!made->channel.empty() && is_line(made->channel), "a channel that is no line");
  require(is_line(made->server), "a server that is no line");
  require(made->duration_s >= 0 && made->duration_s < 1e8, "a duration without end");
  for (const auto& [name, value] : made->options) {
    require(!value.empty() && is_line(value) && value[0] != '-', "an option of a value's");
  }
  // Bytes that are no UTF-8 are said as another character once, which may be too long then.
  const std::string said = text_of(*made);
  const auto again = fleet::job_of(said, error);
  if (again) require(text_of(*again) == said, "a job that comes back another one");
}

void try_state(const std::string& text) {
  std::string error;
  const auto made = fleet::state_of(text, error);
  require(made.has_value() == error.empty(), "an error with a state, or none without");
  if (!made) return;
  const std::string said = made->text();
  const auto again = fleet::state_of(said, error);
  require(again.has_value(), "a state that can't be read again");
  require(again->text() == said && again->now == made->now, "a state that comes back another one");
}

void try_settings(const uint8_t* data, size_t size) {
  const std::string path = scratch_folder() + "worker.json";
  write_scratch(path, data, size);
  std::vector<std::string> errors;
  const fleet::worker_settings made = fleet::load_worker_settings(path, "/bin/true", errors);
  if (!errors.empty()) return;
  require(fleet::is_name(made.name), "a worker that is no subject");
  for (const std::string& label : made.labels) require(fleet::is_name(label), "no label");
  for (const auto* const paths : {&made.roots, &made.settings, &made.credentials}) {
    for (const auto& [name, path_of] : *paths) {
      require(fleet::is_name(name) && path_of.rfind('/', 0) == 0, "a place of no name");
    }
  }
  require(made.lease.count() >= 1000 && made.lease.count() <= 600'000, "a lease out of bounds");
}

}  // namespace
}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta::fuzz;
  const std::string text = text_of(data, size);
  try_job(text);
  try_state(text);
  try_settings(data, size);
  return 0;
}
