// SPDX-License-Identifier: Apache-2.0
// What the fleet's streams, buckets and subjects are called: docs/fleet.md tells them to programs
// of other languages, so they never change their meaning.
#pragma once

#include <string>

namespace zelta::fleet {

// A work queue. A job stands under the label that it asks for, and stays there until it is over.
constexpr const char* kJobsStream = "zelta_jobs";
constexpr const char* kJobsSubjects = "zelta.jobs.*";
// What happened, for as long as a week.
constexpr const char* kEventsStream = "zelta_events";
constexpr const char* kEventsSubjects = "zelta.events.*";
// By job: what it is doing now, with what it did before as history.
constexpr const char* kRecordings = "zelta_recordings";
// By job: layout, backgrounds, whether a manual recording runs; for whoever takes it up.
constexpr const char* kWishes = "zelta_wishes";
// By job: which folders are at their targets, and since when: {"WORKER": {"FOLDER": UTC_MS}}.
constexpr const char* kDeliveries = "zelta_deliveries";
// By worker: what it has room for. One that tells nothing any more is gone from it by itself.
constexpr const char* kWorkers = "zelta_workers";

constexpr const char* kAnyLabel = "any";

inline std::string jobs_subject(const std::string& label) {
  return "zelta.jobs." + label;
}
inline std::string jobs_consumer(const std::string& label) {
  return "jobs_" + label;
}
inline std::string events_subject(const std::string& job) {
  return "zelta.events." + job;
}
// Whoever records it listens here, and answers.
inline std::string command_subject(const std::string& job) {
  return "zelta.command." + job;
}
inline std::string worker_subject(const std::string& worker) {
  return "zelta.worker." + worker;
}

// Of jobs, workers and labels: letters, digits, '-' and '_', 64 at most. They become subjects, keys
// and folders.
bool is_name(const std::string& text);

}  // namespace zelta::fleet
