// SPDX-License-Identifier: Apache-2.0
// journal.json: what the application has told the recorder, for the process that takes over when
// this one dies. Rewritten whole at every change, and gone when the session has ended in order. For
// the recorder's loop thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core_service/folder/crash_note.h"
#include "core_service/folder/state_writer.h"

namespace zelta::core_service {

struct journal_state {
  // Whose journal it is, as folder_share names sessions.
  std::string session;
  // As protocol/mixing_layout.h encodes it; empty: none was set.
  std::vector<uint8_t> layout;
  std::map<uint32_t, std::string> user_backgrounds;
  uint32_t log_level = 0;    // 0: as the command line says
  int64_t log_modules = -1;  // below 0: as the command line says
  bool serving = false;      // a manually started service ran
  // Whose media a recorder crashed over, and what is left out of it to the session's end, whether
  // or not they come back. 0: of everybody.
  std::map<uint32_t, crash_stage> left_out;
  unsigned unexplained_crashes = 0;

  // Leaves out what the crash is put down to. Each time more, so that with any cause there is an
  // end to it within the relaunches that there are.
  void blame(const crash_suspect& suspect);
  // kUnknown: nothing.
  crash_stage left_out_of(uint32_t uid) const;
};

// Null, with `error` saying why, when there is none that makes sense.
std::optional<journal_state> read_journal(const std::string& path, std::string& error);

class journal {
 public:
  // The writer is borrowed.
  journal(std::string path, std::string session, state_writer& writer);

  // What the predecessor left; false, with `error` saying why, when there is nothing of use.
  bool load(std::string& error);
  // Writes after a change of `state`, soon.
  void save() const;
  // Nothing is written any more, and what is being written must have been.
  void remove();
  const std::string& path() const { return path_; }

  journal_state state;

 private:
  const std::string path_;
  state_writer& writer_;
  bool over_ = false;
};

}  // namespace zelta::core_service
