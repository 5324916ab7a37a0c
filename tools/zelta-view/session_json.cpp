// SPDX-License-Identifier: Apache-2.0
#include "session_json.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "level_meter.h"

namespace zelta::view {
namespace {

using recordings::manifest;
using recordings::media_file;

// The largest whole number that a page can count with; times beyond, or before 1970, are damaged.
constexpr int64_t kLastMs = int64_t{1} << 53U;

bool is_time(int64_t utc_ms) {
  return utc_ms >= 0 && utc_ms <= kLastMs;
}

// One stretch of a manifest.
class session {
 public:
  session(const manifest& of, int64_t begin_ms, int64_t end_ms)
      : manifest_(&of), begin_ms_(begin_ms), end_ms_(end_ms) {
    made_["name"] = of.name;
    made_["channel"] = of.channel_id;
    made_["begin_ms"] = Json::Int64(begin_ms);
    made_["end_ms"] = Json::Int64(end_ms);
    made_["live"] = false;
    for (const char* list : {"users", "files", "missing", "messages"}) {
      made_[list] = Json::Value(Json::arrayValue);
    }
  }

  void add(const media_file& file, bool open) {
    Json::Value entry;
    entry["name"] = file.name;
    entry["user"] = user_of(file.uid, file.channel_id);
    entry["kind"] = file.kind;
    entry["video"] = file.video_codec;
    entry["audio"] = file.audio_codec;
    entry["width"] = file.width;
    entry["height"] = file.height;
    entry["begin_ms"] = Json::Int64(file.first_utc_ms);
    entry["end_ms"] = Json::Int64(file.last_utc_ms);
    entry["closed"] = file.closed;
    entry["open"] = open;
    made_["files"].append(entry);
    if (open) made_["live"] = true;
  }

  void add(const recordings::gap& gap) {
    Json::Value entry;
    entry["user"] = gap.uid == 0 ? -1 : user_of(gap.uid, gap.channel_id);
    entry["medium"] = gap.medium;
    entry["codec"] = gap.codec;
    entry["reason"] = gap.reason;
    entry["begin_ms"] = Json::Int64(gap.utc_ms);
    entry["end_ms"] = Json::Int64(gap.until_utc_ms);
    made_["missing"].append(entry);
  }

  void add(const recordings::message& one) {
    Json::Value entry;
    entry["user"] = user_of(one.uid, one.channel_id);
    entry["at_ms"] = Json::Int64(one.utc_ms);
    entry["label"] = one.label;
    entry["text"] = one.text;
    made_["messages"].append(entry);
  }

  // What is noticed before the first media, or after the last, belongs to the nearest.
  int64_t distance_ms(int64_t utc_ms) const {
    return std::max({int64_t{0}, begin_ms_ - utc_ms, utc_ms - end_ms_});
  }
  int64_t begin_ms() const { return begin_ms_; }
  int64_t end_ms() const { return end_ms_; }
  Json::Value take() { return std::move(made_); }

 private:
  int user_of(uint32_t uid, const std::string& channel_id) {
    const auto [found, is_new] =
        users_.emplace(std::make_pair(uid, channel_id), static_cast<int>(users_.size()));
    if (is_new) {
      Json::Value entry;
      entry["uid"] = uid;
      entry["channel"] = channel_id;
      const auto name = manifest_->names.find(uid);
      entry["name"] = name == manifest_->names.end() ? "" : name->second;
      made_["users"].append(entry);
    }
    return found->second;
  }

  const manifest* manifest_;
  int64_t begin_ms_;
  int64_t end_ms_;
  std::map<std::pair<uint32_t, std::string>, int> users_;
  Json::Value made_;
};

// Its end may not have been told.
bool is_cut(const media_file& file) {
  return file.closed.empty() || file.closed == "recorder died";
}

struct shown_file {
  media_file facts;
  bool open;
};

// Those that can be shown, in the order of time. Counts in `damaged` what has no place in it.
std::vector<shown_file> files_of(const manifest_seen& seen, size_t& damaged) {
  std::vector<shown_file> files;
  for (size_t i = 0; i < seen.facts->files.size(); ++i) {
    const media_file& file = seen.facts->files[i];
    const file_state state = seen.states[i];
    if (!is_time(file.first_utc_ms) || !is_time(file.last_utc_ms)) {
      ++damaged;
    } else if (state != file_state::kGone && (file.duration_ms() > 0 || is_cut(file))) {
      files.push_back({file, state == file_state::kWritten});
    }
  }
  std::stable_sort(files.begin(), files.end(), [](const shown_file& a, const shown_file& b) {
    return a.facts.first_utc_ms < b.facts.first_utc_ms;
  });
  return files;
}

std::vector<session> stretches_of(const manifest& of, const std::vector<shown_file>& files) {
  std::vector<session> all;
  for (const auto& [file, open] : files) {
    const int64_t end_ms = std::max(file.last_utc_ms, file.first_utc_ms);
    if (all.empty() || file.first_utc_ms - all.back().end_ms() > kPauseBetweenSessionsMs) {
      all.emplace_back(of, file.first_utc_ms, end_ms);
    } else if (end_ms > all.back().end_ms()) {
      const int64_t begin_ms = all.back().begin_ms();
      all.pop_back();
      all.emplace_back(of, begin_ms, end_ms);
    }
  }
  return all;
}

session& nearest(std::vector<session>& all, int64_t utc_ms) {
  return *std::min_element(all.begin(), all.end(), [utc_ms](const session& a, const session& b) {
    return a.distance_ms(utc_ms) < b.distance_ms(utc_ms);
  });
}

void add_sessions(const manifest_seen& seen, std::vector<session>& sessions, folder_view& view) {
  const manifest& of = *seen.facts;
  size_t damaged = 0;
  const std::vector<shown_file> files = files_of(seen, damaged);
  std::vector<session> all = stretches_of(of, files);
  for (const auto& [file, open] : files) {
    view.files.insert(file.name);
    nearest(all, file.first_utc_ms).add(file, open);
  }
  for (const recordings::gap& gap : of.missing) {
    if (!is_time(gap.utc_ms) || !is_time(gap.until_utc_ms)) {
      ++damaged;
    } else if (!all.empty()) {
      nearest(all, gap.utc_ms).add(gap);
    }
  }
  for (const auto& one : seen.messages) {
    if (!is_time(one.utc_ms)) {
      ++damaged;
    } else if (!all.empty()) {
      nearest(all, one.utc_ms).add(one);
    }
  }
  if (damaged > 0) {
    view.errors.push_back(of.name + ": " + std::to_string(damaged) +
                          " entries have times that can't be");
  }
  if (all.empty()) {
    view.errors.push_back(of.name + " names no file that is there and has media yet");
  }
  std::move(all.begin(), all.end(), std::back_inserter(sessions));
}

// Where the folder stands is nobody's business who is handed its page.
std::string without_path(const std::string& error, const std::string& folder) {
  if (error.rfind(folder, 0) != 0) return error;
  const std::string rest = error.substr(folder.size());
  return rest.empty() || rest[0] == ' ' ? "The folder" + rest : rest;
}

}  // namespace

folder_view view_of(const std::string& folder, const std::map<std::string, manifest_seen>& all,
                    const std::vector<std::string>& errors) {
  folder_view view;
  view.errors = errors;
  std::vector<session> sessions;
  for (const auto& [name, seen] : all) {
    view.errors.insert(view.errors.end(), seen.errors.begin(), seen.errors.end());
    if (!seen.facts) continue;
    ++view.manifests;
    add_sessions(seen, sessions, view);
  }
  std::stable_sort(sessions.begin(), sessions.end(),
                   [](const session& a, const session& b) { return a.begin_ms() < b.begin_ms(); });
  view.page["level_step_ms"] = Json::Int64(kLevelStepMs);
  view.page["sessions"] = Json::Value(Json::arrayValue);
  view.page["errors"] = Json::Value(Json::arrayValue);
  for (session& one : sessions) view.page["sessions"].append(one.take());
  for (const std::string& error : view.errors) {
    view.page["errors"].append(without_path(error, folder));
  }
  return view;
}

std::string text_of(const Json::Value& value) {
  Json::StreamWriterBuilder how;
  how["indentation"] = "";
  how["emitUTF8"] = true;
  return Json::writeString(how, value);
}

}  // namespace zelta::view
