// SPDX-License-Identifier: Apache-2.0
// Who was recorded when: the files of a recording folder on one timeline.
//
// Times are microseconds from the session's zero, which is the beginning of its first file.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "problems.h"
#include "recordings/recording_folder.h"

namespace zelta::lay {

struct stretch {
  std::string path;
  std::string name;  // of the file
  int64_t begin_us = 0;
  int64_t end_us = 0;
  // How long its media is, which goes on when the next file begins.
  int64_t media_us = 0;
  // How much later than it should all of its media stands in the file: fragments that wait for no
  // index can't tell that pictures are shown later than decoded.
  int64_t late_us = 0;
  std::string video_codec;  // empty: no picture
  std::string audio_codec;  // empty: no sound
  int width = 0;
  int height = 0;

  bool has_picture() const { return !video_codec.empty(); }
  bool has_sound() const { return !audio_codec.empty(); }
};

// A file that can't be laid, and where it would have stood as far as the manifest knows.
struct missing_file {
  std::string line;
  int64_t begin_us = INT64_MIN;
  int64_t end_us = INT64_MAX;
  bool has_sound = true;
};

struct user {
  uint32_t uid = 0;
  std::string name;                // the number when they have none
  std::vector<stretch> stretches;  // in the order of time
  std::vector<missing_file> missing;

  bool has_picture() const;
  bool has_sound() const;
};

struct session {
  std::string channel_id;
  int64_t zero_utc_us = 0;
  int64_t length_us = 0;
  std::vector<user> users;  // in the order of coming
  // The names of all files that the folder's manifests have, of other channels as well.
  std::set<std::string> recorded;

  const user* find(uint32_t uid) const;
};

// A part of a session.
struct span {
  int64_t from_us = 0;
  int64_t to_us = 0;

  int64_t length_us() const { return to_us - from_us; }
};

// The session of a folder, without mixes. Of a file that is missing, empty or of impossible times
// its user knows, and the others are laid; a manifest that can't be read is a problem. None, with
// `error`, when nothing is left, or when the folder holds several channels and `channel` is empty.
// Throws `stopped`.
std::optional<session> read_session(const std::string& folder, const std::string& channel,
                                    problems& found, std::string& error);

// The manifests' part of it; no media is looked at but what a manifest can't know.
std::optional<session> arrange(const std::vector<recordings::manifest>& manifests,
                               const std::string& folder, const std::string& channel,
                               std::string& error);

// No recording is taken to be longer.
constexpr int64_t kLongestUs = int64_t{30} * 24 * 3600 * 1000000;

}  // namespace zelta::lay
