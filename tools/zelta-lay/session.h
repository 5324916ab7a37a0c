// SPDX-License-Identifier: Apache-2.0
// Who was recorded when: the files of a recording folder on one timeline.
//
// Times are microseconds from the session's zero, which is the beginning of its first file.
#pragma once

#include <cstdint>
#include <optional>
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
  std::string video_codec;  // empty: no picture
  std::string audio_codec;  // empty: no sound
  int width = 0;
  int height = 0;

  bool has_picture() const { return !video_codec.empty(); }
  bool has_sound() const { return !audio_codec.empty(); }
};

struct user {
  uint32_t uid = 0;
  std::string name;                // the number when they have none
  std::vector<stretch> stretches;  // in the order of time

  bool has_picture() const;
  bool has_sound() const;
};

struct session {
  std::string channel_id;
  int64_t zero_utc_us = 0;
  int64_t length_us = 0;
  std::vector<user> users;  // in the order of coming

  const user* find(uint32_t uid) const;
};

// The session of a folder, without mixes. A file that is missing or empty becomes a problem and the
// others are laid. None, with `error`, when nothing is left, or when the folder holds several
// channels and `channel` is empty.
std::optional<session> read_session(const std::string& folder, const std::string& channel,
                                    problems& found, std::string& error);

// The manifests' part of it, without a look at the media.
std::optional<session> arrange(const std::vector<recordings::manifest>& manifests,
                               const std::string& folder, const std::string& channel,
                               problems& found, std::string& error);

}  // namespace zelta::lay
