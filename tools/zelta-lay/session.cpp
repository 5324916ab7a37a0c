// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include <sys/stat.h>

#include "stream_reader.h"

namespace zelta::lay {
namespace {

constexpr int64_t kMs = 1000;

constexpr int64_t kLastMs = 253402300799000;  // the end of the year 9999
constexpr int kMostPixels = 16384;            // of a side

struct placed {
  recordings::media_file file;
  std::string name;   // what its user calls themselves
  std::string fault;  // why it can't be laid
};

// The manifest of a recorder that died, or that still records, is up to two seconds behind; of
// files that it didn't come to, it guesses all but the beginning.
bool is_guessed(const recordings::media_file& file) {
  return file.closed.empty() || file.closed == "recorder died";
}

bool has_possible_times(const recordings::media_file& file) {
  const int64_t first = file.first_utc_ms;
  const int64_t last = file.last_utc_ms;
  if (first <= 0 || first > kLastMs) return false;
  return last < first ? is_guessed(file) : last - first <= kLongestUs / kMs;
}

std::string fault_of(const recordings::media_file& file) {
  if (file.bytes == 0) return "is missing or empty";
  if (has_possible_times(file)) return "";
  const int64_t first = file.first_utc_ms;
  const int64_t last = file.last_utc_ms;
  return "can't go from " + std::to_string(first) + " to " + std::to_string(last) +
         " ms since 1970: it is left out";
}

// Every file of a user, of all manifests: sessions that follow each other share a folder.
std::vector<placed> files_of(const std::vector<recordings::manifest>& manifests) {
  // Who has a name in one session has it in those that tell none.
  std::map<std::pair<std::string, uint32_t>, std::string> names;
  for (const recordings::manifest& m : manifests) {
    for (const auto& [uid, name] : m.names) names[{m.channel_id, uid}] = name;
  }
  std::vector<placed> all;
  for (const recordings::manifest& m : manifests) {
    for (const recordings::media_file& file : m.files) {
      if (file.uid == 0) continue;
      const auto own = m.names.find(file.uid);
      const auto other = names.find({file.channel_id, file.uid});
      all.push_back({file,
                     own != m.names.end()   ? own->second
                     : other != names.end() ? other->second
                                            : "",
                     fault_of(file)});
    }
  }
  std::stable_sort(all.begin(), all.end(), [](const placed& a, const placed& b) {
    return a.file.first_utc_ms < b.file.first_utc_ms;
  });
  return all;
}

// An empty text when `channel`, or the only one, can be laid.
std::string choose_channel(const std::vector<placed>& files, std::string& channel) {
  std::set<std::string> channels;
  for (const placed& p : files) channels.insert(p.file.channel_id);
  if (channel.empty() && channels.size() == 1) channel = *channels.begin();
  if (channels.count(channel) != 0) return "";
  std::string names;
  for (const std::string& c : channels) names += (names.empty() ? "\"" : ", \"") + c + "\"";
  return channel.empty() ? "it holds several channels, name one by --channel: " + names
                         : "it holds no channel \"" + channel + "\"; there are " + names;
}

// How long what was recorded from then on can be: nothing is written before it was.
int64_t longest_us(const recordings::media_file& file, const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return kLongestUs;
  const int64_t written_ms = static_cast<int64_t>(status.st_mtim.tv_sec) * kMs + kMs;
  // A clock that was put back tells nothing.
  if (written_ms <= file.first_utc_ms) return kLongestUs;
  return std::min(kLongestUs, (written_ms - file.first_utc_ms) * kMs);
}

void ask_media(stretch& s, const recordings::media_file& file) {
  const media_facts is = measure_media(s.path, longest_us(file, s.path));
  if (!is.is_media) return;
  s.video_codec = is.video_codec;
  s.audio_codec = is.audio_codec;
  s.width = is.width;
  s.height = is.height;
  if (!is_guessed(file)) return;
  if (is.is_mp4 && s.has_picture()) s.late_us = std::clamp<int64_t>(is.begin_us, 0, kSecond);
  s.media_us = std::max(s.media_us, is.end_us - s.late_us);
  s.end_us = s.begin_us + s.media_us;
}

stretch stretch_of(const recordings::media_file& file, const std::string& path, int64_t zero_ms) {
  stretch made;
  made.path = path + file.name;
  made.name = file.name;
  made.begin_us = (file.first_utc_ms - zero_ms) * kMs;
  made.media_us = std::max<int64_t>(0, file.last_utc_ms - file.first_utc_ms) * kMs;
  made.end_us = made.begin_us + made.media_us;
  made.video_codec = file.video_codec;
  made.audio_codec = file.audio_codec;
  made.width = file.width;
  made.height = file.height;
  const bool has_size =
      made.width > 0 && made.width <= kMostPixels && made.height > 0 && made.height <= kMostPixels;
  if (is_guessed(file) || (made.has_picture() && !has_size)) ask_media(made, file);
  return made;
}

// Its times since 1970, for the session's zero isn't known yet.
missing_file missing_of(const placed& p) {
  missing_file made;
  made.line = p.file.name + " of user " + std::to_string(p.file.uid) + " " + p.fault;
  made.has_sound = p.file.kind != "video";
  if (!has_possible_times(p.file)) return made;
  made.begin_us = p.file.first_utc_ms * kMs;
  if (!is_guessed(p.file)) made.end_us = p.file.last_utc_ms * kMs;
  return made;
}

// A file ends at the latest where the next one of its user begins.
void end_before(std::vector<missing_file>& missing, int64_t begin_utc_us) {
  for (missing_file& m : missing) {
    if (m.begin_us != INT64_MIN) m.end_us = std::min(m.end_us, begin_utc_us);
  }
}

void count_from_zero(std::vector<missing_file>& missing, int64_t zero_utc_us) {
  for (missing_file& m : missing) {
    if (m.begin_us != INT64_MIN) m.begin_us -= zero_utc_us;
    if (m.end_us != INT64_MAX) m.end_us -= zero_utc_us;
  }
}

user& user_of(session& of, const placed& p) {
  for (user& u : of.users) {
    if (u.uid == p.file.uid) return u;
  }
  user made;
  made.uid = p.file.uid;
  made.name = p.name.empty() ? std::to_string(p.file.uid) : p.name;
  of.users.push_back(made);
  return of.users.back();
}

}  // namespace

bool user::has_picture() const {
  return std::any_of(stretches.begin(), stretches.end(),
                     [](const stretch& s) { return s.has_picture(); });
}

bool user::has_sound() const {
  return std::any_of(stretches.begin(), stretches.end(),
                     [](const stretch& s) { return s.has_sound(); });
}

const user* session::find(uint32_t uid) const {
  for (const user& u : users) {
    if (u.uid == uid) return &u;
  }
  return nullptr;
}

std::optional<session> arrange(const std::vector<recordings::manifest>& manifests,
                               const std::string& folder, const std::string& channel,
                               std::string& error) {
  const std::string path = folder.empty() || folder.back() == '/' ? folder : folder + "/";
  const std::vector<placed> files = files_of(manifests);
  if (files.empty()) {
    error = path + " holds no media of any user";
    return std::nullopt;
  }
  session made;
  made.channel_id = channel;
  const std::string fault = choose_channel(files, made.channel_id);
  if (!fault.empty()) {
    error = path + ": " + fault;
    return std::nullopt;
  }
  int64_t zero_ms = 0;
  for (const placed& p : files) {
    if (p.file.channel_id != made.channel_id) continue;
    user& whose = user_of(made, p);
    if (has_possible_times(p.file)) end_before(whose.missing, p.file.first_utc_ms * kMs);
    if (!p.fault.empty()) {
      whose.missing.push_back(missing_of(p));
      error = path + ": " + whose.missing.back().line;
      continue;
    }
    if (zero_ms == 0) zero_ms = p.file.first_utc_ms;
    stretch next = stretch_of(p.file, path, zero_ms);
    std::vector<stretch>& before = whose.stretches;
    // What comes next is better known than where a recorder that died left off.
    if (!before.empty()) before.back().end_us = std::min(before.back().end_us, next.begin_us);
    before.push_back(std::move(next));
  }
  for (user& u : made.users) {
    count_from_zero(u.missing, zero_ms * kMs);
    for (const stretch& s : u.stretches) made.length_us = std::max(made.length_us, s.end_us);
  }
  made.zero_utc_us = zero_ms * kMs;
  if (made.length_us > 0) return made;
  if (error.empty()) {
    error = path + ": no file of channel \"" + made.channel_id + "\" has any length";
  }
  return std::nullopt;
}

std::optional<session> read_session(const std::string& folder, const std::string& channel,
                                    problems& found, std::string& error) {
  std::vector<std::string> errors;
  const std::vector<recordings::manifest> manifests = recordings::read_manifests(folder, errors);
  if (manifests.empty()) {
    error = errors.empty() ? folder + " holds no recording" : errors.front();
    return std::nullopt;
  }
  for (const std::string& line : errors) found.add(line);
  std::error_code failed;
  const std::filesystem::path whole = std::filesystem::canonical(folder, failed);
  auto made = arrange(manifests, failed ? folder : whole.string(), channel, error);
  if (!made) return std::nullopt;
  for (const recordings::manifest& m : manifests) {
    for (const recordings::media_file& file : m.files) made->recorded.insert(file.name);
  }
  return made;
}

}  // namespace zelta::lay
