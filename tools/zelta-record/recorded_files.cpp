// SPDX-License-Identifier: Apache-2.0
#include "recorded_files.h"

#include <algorithm>
#include <utility>

namespace zelta::record {
namespace {

recorded_file file_of(const recordings::media_file& one) {
  std::string codecs = one.video_codec;
  if (!codecs.empty() && !one.audio_codec.empty()) codecs += "+";
  codecs += one.audio_codec;
  return {one.name,          one.uid,   std::move(codecs), one.first_utc_ms,
          one.duration_ms(), one.bytes, one.closed};
}

void add_manifest(const recordings::manifest& one, const std::string& channel_id, recorded& all) {
  for (const recordings::media_file& file : one.files) {
    if (file.channel_id == channel_id) all.files.push_back(file_of(file));
  }
  for (const recordings::gap& gap : one.missing) {
    if (gap.channel_id != channel_id) continue;
    all.missing.push_back({gap.uid, gap.medium, gap.codec, gap.reason, gap.utc_ms});
  }
  if (one.channel_id != channel_id) return;
  for (const auto& [uid, count] : one.pictures) all.pictures[uid] += count;
  for (const auto& [uid, count] : one.messages) all.messages += count;
  for (const auto& [uid, count] : one.lost_packets) all.lost_packets += count;
  all.dropped.pictures += one.dropped.pictures;
  all.dropped.coded += one.dropped.coded;
  all.dropped.sound += one.dropped.sound;
  // One that is over is behind nothing.
  if (one.sessions.empty() || !one.sessions.back().ended.empty()) return;
  all.lag_of_packets_ms = std::max(all.lag_of_packets_ms, one.lag_of_packets_ms);
  all.lag_of_disk_ms = std::max(all.lag_of_disk_ms, one.lag_of_disk_ms);
}

// A folder may have been emptied in between.
void take_off(uint64_t& from, uint64_t before) {
  from -= std::min(from, before);
}

}  // namespace

uint64_t recorded::bytes() const {
  uint64_t sum = 0;
  for (const recorded_file& file : files) sum += file.bytes;
  return sum;
}

int64_t recorded::duration_ms() const {
  int64_t end = files.empty() ? 0 : files.front().first_utc_ms;
  for (const recorded_file& file : files) end = std::max(end, file.first_utc_ms + file.duration_ms);
  return files.empty() ? 0 : end - files.front().first_utc_ms;
}

recorded read_recorded(const std::string& folder, const std::string& channel_id) {
  recorded all;
  // What can't be read can't be shown.
  std::vector<std::string> unread;
  for (const recordings::manifest& one : recordings::read_manifests(folder, unread)) {
    add_manifest(one, channel_id, all);
  }
  std::sort(all.files.begin(), all.files.end(),
            [](const recorded_file& left, const recorded_file& right) {
              return left.first_utc_ms < right.first_utc_ms;
            });
  return all;
}

recorded without(recorded all, const recorded& before) {
  const auto remove = [](auto& from, const auto& known, auto same) {
    from.erase(std::remove_if(from.begin(), from.end(),
                              [&](const auto& one) {
                                return std::any_of(
                                    known.begin(), known.end(),
                                    [&](const auto& other) { return same(one, other); });
                              }),
               from.end());
  };
  remove(all.files, before.files,
         [](const recorded_file& a, const recorded_file& b) { return a.name == b.name; });
  remove(all.missing, before.missing, [](const missing_medium& a, const missing_medium& b) {
    return a.uid == b.uid && a.utc_ms == b.utc_ms && a.reason == b.reason;
  });
  take_off(all.dropped.pictures, before.dropped.pictures);
  take_off(all.dropped.coded, before.dropped.coded);
  take_off(all.dropped.sound, before.dropped.sound);
  take_off(all.messages, before.messages);
  take_off(all.lost_packets, before.lost_packets);
  for (const auto& [uid, count] : before.pictures) {
    const auto found = all.pictures.find(uid);
    if (found == all.pictures.end()) continue;
    take_off(found->second, count);
    if (found->second == 0) all.pictures.erase(found);
  }
  return all;
}

std::string fault_of(const recorded_file& file) {
  if (file.bytes == 0) return "is empty";
  if (file.closed.empty()) return "was not completed: the recorder was killed";
  if (file.closed == "recorder died") return "ends early: the recorder died";
  if (file.duration_ms == 0) return "has no media in it";
  return "";
}

}  // namespace zelta::record
