// SPDX-License-Identifier: Apache-2.0
// The log files of all recording folders of the process.
#pragma once

#include <string>

namespace zelta::base {

constexpr const char* kLogFileName = "recording_engine.log";

// Appends `line` with one write to the log of `dir`; several processes may share the file. The file
// is opened once, closed when the folder has been idle for a minute, opened again when somebody
// rotated it away, and rotated by itself at 16 MiB, keeping four. A line that can't be written is
// counted, and the number is written as soon as there is room again.
//
// `may_drop` allows the line to be dropped, and counted, in a flood. Returns whether the line was
// written. Any thread.
bool log_file_write(const std::string& dir, const std::string& line, bool may_drop);

// Nothing more is expected for `dir`: its file is closed now and not only after a while. A line
// that comes all the same opens it again.
void log_file_close(const std::string& dir);

}  // namespace zelta::base
