// SPDX-License-Identifier: Apache-2.0
#include "outcome.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "log_reason.h"

namespace zelta::record {
namespace {

std::string user_text(uint32_t uid) {
  return uid == 0 ? "the mix" : "user " + std::to_string(uid);
}

// Of nobody there is the mix, and what could not be given to anybody.
std::string text_of(const missing_medium& gap) {
  if (gap.uid == 0) return gap.medium == "mix" ? "the mix: " + gap.reason : gap.reason;
  std::string text = user_text(gap.uid);
  if (!gap.medium.empty()) text += ", " + gap.medium;
  if (!gap.codec.empty()) text += " (" + gap.codec + ")";
  return text + ": " + gap.reason;
}

// What a user can do about it, where the reason itself doesn't say.
std::string advice_for(const std::string& reason) {
  const struct {
    const char* part;
    const char* advice;
  } kAdvice[] = {
      {"No space left", "make room, or choose another --record-file-root-dir"},
      {"Permission denied", "choose a --record-file-root-dir that you may write"},
      {"Read-only file system", "choose a --record-file-root-dir that you may write"},
      {"channel server", "see --server in --help"},
      {"no executable file", "install ZeltaCoreService, or name its folder with --applite-dir"},
      {"ddress already in use", "end what uses the port, or choose another"},
      {"channel's folder", "make the folder, or correct --server or the channel's name"},
  };
  for (const auto& row : kAdvice) {
    if (reason.find(row.part) != std::string::npos) return std::string("; ") + row.advice;
  }
  return "";
}

std::string reason_of(const recording_place& place, const reporter::facts& facts) {
  const std::string logged = logged_reason(place.folder, place.since_utc_ms);
  if (!logged.empty()) return logged + advice_for(logged);
  return "the recorder reported error " + std::to_string(facts.error) + ", code " +
         std::to_string(facts.stat_code) + ", and its log has no reason";
}

void show_files(const recorded& all, const recording_place& place, printer& out) {
  out.event("folder", {{"path", place.folder}});
  for (const recorded_file& file : all.files) {
    out.event("file", {{"name", file.name},
                       {"uid", file.uid},
                       {"codecs", file.codecs},
                       {"duration_ms", Json::Int64{file.duration_ms}},
                       {"bytes", Json::UInt64{file.bytes}},
                       {"closed", file.closed}});
  }
  for (const auto& [uid, count] : all.pictures) {
    out.event("pictures", {{"uid", uid}, {"count", Json::UInt64{count}}});
  }
}

}  // namespace

recorded read_recorded(const recording_place& place) {
  return without(read_recorded(place.folder, place.channel_id), place.earlier);
}

std::vector<std::string> losses(const recorded& all, const reporter::facts& facts,
                                const std::string& frame_fault,
                                const std::vector<std::string>& logged) {
  std::vector<std::string> lines;
  for (const missing_medium& gap : all.missing) lines.push_back(text_of(gap));
  if (all.missing.empty() && facts.user_errors > 0) {
    for (const std::string& error : logged) {
      if (error.rfind("user ", 0) == 0) lines.push_back(error);
    }
    if (lines.empty()) lines.emplace_back("a user's media could not be recorded");
  }
  for (const recorded_file& file : all.files) {
    const std::string fault = fault_of(file);
    if (!fault.empty()) lines.push_back(user_text(file.uid) + ": " + file.name + " " + fault);
  }
  if (facts.restarts > 0) {
    lines.push_back("the recorder died and was started again, " + std::to_string(facts.restarts) +
                    (facts.restarts == 1 ? " time" : " times") +
                    ": what was sent in between is missing");
  }
  if (all.dropped.all() > 0) {
    lines.push_back(std::to_string(all.dropped.all()) +
                    " frames were dropped: they were not taken fast enough");
  }
  if (!frame_fault.empty()) lines.push_back(frame_fault);
  return lines;
}

exit_status tell_outcome(const recording_place& place, const reporter& report, bool asked,
                         printer& out) {
  const reporter::facts facts = report.now();
  const recorded all = read_recorded(place);
  show_files(all, place, out);
  std::vector<std::string> missing =
      losses(all, facts, report.frame_fault(), logged_errors(place.folder, place.since_utc_ms));
  const bool nothing = all.files.empty() && all.pictures.empty() && facts.frames == 0;
  if (facts.status == kRecorded && nothing && asked && facts.media_came && missing.empty()) {
    missing.emplace_back("users sent media, and no file of it is there");
  }
  for (const std::string& what : missing) {
    if (out.is_json()) out.event("missing", {{"what", what}});
    // A single one stands in the last line.
    if (missing.size() > 1 || facts.status != kRecorded) complain("missing: " + what);
  }
  exit_status status = facts.status;
  std::string reason;
  if (status == kRecorderError || status == kRecorderLost) {
    reason = reason_of(place, facts);
  } else if (!missing.empty()) {
    status = kNotAll;
    reason = "recorded, but not all: " +
             (missing.size() > 1 ? std::to_string(missing.size()) + " things are missing, see above"
                                 : missing.front());
  } else if (nothing) {
    reason = asked ? "nothing was recorded: nobody came, or nobody sent anything"
                   : "nothing was recorded: the service was never started";
  }
  if (out.is_json()) out.event("end", {{"status", int{status}}, {"reason", reason}});
  if (!reason.empty()) complain(reason);
  return status;
}

}  // namespace zelta::record
