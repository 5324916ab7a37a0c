// SPDX-License-Identifier: Apache-2.0
#include "session_json.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "recordings/message_log.h"
#include "recordings/recording_folder.h"

namespace zelta::view {
namespace {

using recordings::manifest;
using recordings::media_file;

constexpr size_t kMostMessages = 20'000;
// A recorder writes five times a second while media comes, and sound beside a stopped picture a
// little later.
constexpr int64_t kStillWrittenMs = 15'000;

bool is_written(const std::string& path, const media_file& file, int64_t now_utc_ms) {
  struct stat status {};
  if (!file.closed.empty() || stat(path.c_str(), &status) != 0) return false;
  const int64_t changed_ms =
      status.st_mtim.tv_sec * int64_t{1000} + status.st_mtim.tv_nsec / 1'000'000;
  return now_utc_ms - changed_ms < kStillWrittenMs;
}

// One stretch of a manifest.
class session {
 public:
  session(const manifest& of, int64_t begin_ms, int64_t end_ms)
      : manifest_(of), begin_ms_(begin_ms), end_ms_(end_ms) {
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
    entry["bytes"] = Json::UInt64(file.bytes);
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
      const auto name = manifest_.names.find(uid);
      entry["name"] = name == manifest_.names.end() ? "" : name->second;
      made_["users"].append(entry);
    }
    return found->second;
  }

  const manifest& manifest_;
  const int64_t begin_ms_;
  const int64_t end_ms_;
  std::map<std::pair<uint32_t, std::string>, int> users_;
  Json::Value made_;
};

bool has_media(const media_file& file) {
  return file.bytes > 0 && (file.duration_ms() > 0 || file.closed.empty());
}

std::vector<session> stretches_of(const manifest& of, const std::vector<media_file>& files) {
  std::vector<session> all;
  for (const media_file& file : files) {
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

void add_sessions(const std::string& folder, int64_t now_utc_ms, const manifest& of,
                  std::vector<std::string>& errors, folder_view& view) {
  std::vector<media_file> files = of.files;
  files.erase(std::remove_if(files.begin(), files.end(),
                             [](const media_file& file) { return !has_media(file); }),
              files.end());
  std::stable_sort(files.begin(), files.end(), [](const media_file& a, const media_file& b) {
    return a.first_utc_ms < b.first_utc_ms;
  });
  std::vector<session> all = stretches_of(of, files);
  if (all.empty()) {
    errors.push_back(of.name + " names no file that is there and has media yet");
    return;
  }
  for (const media_file& file : files) {
    view.files.insert(file.name);
    nearest(all, file.first_utc_ms).add(file, is_written(folder + file.name, file, now_utc_ms));
  }
  for (const recordings::gap& gap : of.missing) nearest(all, gap.utc_ms).add(gap);
  for (const auto& one : recordings::read_messages(folder, of.name, kMostMessages, errors)) {
    nearest(all, one.utc_ms).add(one);
  }
  for (session& one : all) view.page["sessions"].append(one.take());
}

}  // namespace

int64_t wall_clock_ms() {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

folder_view look_at(const std::string& folder, int64_t now_utc_ms) {
  folder_view view;
  view.page["read_utc_ms"] = Json::Int64(now_utc_ms);
  view.page["sessions"] = Json::Value(Json::arrayValue);
  view.page["errors"] = Json::Value(Json::arrayValue);
  std::vector<std::string> errors;
  for (const manifest& one : recordings::read_manifests(folder, errors)) {
    ++view.manifests;
    add_sessions(folder, now_utc_ms, one, errors, view);
  }
  for (const std::string& error : errors) view.page["errors"].append(error);
  return view;
}

std::string text_of(const Json::Value& value) {
  Json::StreamWriterBuilder how;
  how["indentation"] = "";
  how["emitUTF8"] = true;
  return Json::writeString(how, value);
}

}  // namespace zelta::view
