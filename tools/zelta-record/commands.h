// SPDX-License-Identifier: Apache-2.0
// What may be changed while it records: one command a line, from standard input.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "IZeltaRecordingEngine.h"

namespace zelta::record {

// Takes whole lines from standard input and never waits for them. Its end, or a terminal whose
// foreground is another job's, ends nothing.
class command_lines {
 public:
  explicit command_lines(bool wanted);

  // To be polled for input; -1 while nothing is to be read.
  int fd() const;
  // What has come, after the descriptor showed input or its end.
  std::vector<std::string> take();

 private:
  bool open_;
  const bool terminal_;
  std::string rest_;
};

struct command_scope {
  recording::IRecordingEngine& engine;
  bool manual;       // started and stopped by command
  bool mixes_video;  // has a picture that can be arranged
  int highest_log_level;
  bool has_lease;
  // Set by commands.
  bool started = false;
  bool leave = false;
  std::optional<double> renewed_s = std::nullopt;  // of the lease, from now on
};

// Carries the command out. Empty, or what is wrong with it and what would be right.
std::string run_command(const std::string& line, command_scope& scope);

}  // namespace zelta::record
