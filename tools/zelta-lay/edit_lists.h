// SPDX-License-Identifier: Apache-2.0
// The timeline for editors, which then cut the recorded files themselves.
#pragma once

#include <string>
#include <vector>

#include "lane.h"
#include "session.h"
#include "turns.h"

namespace zelta::lay {

// CMX 3600, pictures and sound of one user at a time: those who have the turn, or the only user.
// Timecodes count frames of `fps`, from 00:00:00:00 in film and files alike.
std::string edit_decision_list(const session& of, const std::vector<turn>& turns, const span& what,
                               int fps);

// OpenTimelineIO: a track of pictures and one of sound for each user, in frames of `fps`. Files are
// named by their paths, which should be absolute.
std::string open_timeline(const session& of, const span& what, int fps);

}  // namespace zelta::lay
