// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <set>
#include <system_error>

#include "stream_reader.h"

namespace zelta::lay {
namespace {

constexpr int64_t kMs = 1000;

struct placed {
  recordings::media_file file;
  std::string name;  // what its user calls themselves
};

// Every file of a user, of all manifests: sessions that follow each other share a folder.
std::vector<placed> files_of(const std::vector<recordings::manifest>& manifests, problems& found) {
  std::vector<placed> all;
  for (const recordings::manifest& m : manifests) {
    for (const recordings::media_file& file : m.files) {
      if (file.uid == 0) continue;
      if (file.bytes == 0) {
        found.add(file.name + " of user " + std::to_string(file.uid) + " is missing or empty");
        continue;
      }
      const auto name = m.names.find(file.uid);
      all.push_back({file, name == m.names.end() ? "" : name->second});
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

// The manifest of a recorder that died, or that still records, is up to two seconds behind.
bool may_be_longer(const recordings::media_file& file) {
  return file.closed.empty() || file.closed == "recorder died";
}

stretch stretch_of(const recordings::media_file& file, const std::string& path, int64_t zero_ms) {
  stretch made;
  made.path = path + file.name;
  made.name = file.name;
  made.begin_us = (file.first_utc_ms - zero_ms) * kMs;
  made.end_us = (file.last_utc_ms - zero_ms) * kMs;
  made.video_codec = file.video_codec;
  made.audio_codec = file.audio_codec;
  made.width = file.width;
  made.height = file.height;
  if (may_be_longer(file)) {
    made.end_us = std::max(made.end_us, made.begin_us + media_length_us(made.path));
  }
  return made;
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
                               problems& found, std::string& error) {
  const std::string path = folder.empty() || folder.back() == '/' ? folder : folder + "/";
  const std::vector<placed> files = files_of(manifests, found);
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
  int64_t zero_ms = std::numeric_limits<int64_t>::max();
  for (const placed& p : files) {
    if (p.file.channel_id != made.channel_id) continue;
    zero_ms = std::min(zero_ms, p.file.first_utc_ms);
    stretch next = stretch_of(p.file, path, zero_ms);
    std::vector<stretch>& before = user_of(made, p).stretches;
    // What comes next is better known than where a recorder that died left off.
    if (!before.empty()) before.back().end_us = std::min(before.back().end_us, next.begin_us);
    before.push_back(std::move(next));
  }
  for (const user& u : made.users) {
    for (const stretch& s : u.stretches) made.length_us = std::max(made.length_us, s.end_us);
  }
  made.zero_utc_us = zero_ms * kMs;
  if (made.length_us > 0) return made;
  error = path + ": no file of channel \"" + made.channel_id + "\" has any length";
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
  return arrange(manifests, failed ? folder : whole.string(), channel, found, error);
}

}  // namespace zelta::lay
