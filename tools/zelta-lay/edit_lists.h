// SPDX-License-Identifier: Apache-2.0
// The timeline for editors, which then cut the recorded files themselves.
#pragma once

#include <string>
#include <vector>

#include "session.h"
#include "turns.h"

namespace zelta::lay {

struct edit_list {
  std::string text;
  int events = 0;
};

// What numbers of three digits, which CMX 3600 has, can count.
constexpr int kMostEvents = 999;

// CMX 3600, pictures and sound of one user at a time: those who have the turn, or the only user.
// Timecodes count frames of `fps`, from 00:00:00:00 in film and files alike.
edit_list edit_decision_list(const session& of, const std::vector<turn>& turns, const span& what,
                             int fps);

// OpenTimelineIO: a track of pictures and one of sound for each user, in frames of `fps`. Files are
// named by their paths, which should be absolute.
std::string open_timeline(const session& of, const span& what, int fps);

}  // namespace zelta::lay
