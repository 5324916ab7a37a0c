// SPDX-License-Identifier: Apache-2.0
// journal.json: what the application has told the recorder, for the process that takes over when
// this one dies. Rewritten whole at every change. For the recorder's loop thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core_service/state_writer.h"

namespace zelta::core_service {

struct journal_state {
  // As rec_engine/mixing_layout.h encodes it; empty: none was set.
  std::vector<uint8_t> layout;
  std::map<uint32_t, std::string> user_backgrounds;
  uint32_t log_level = 0;    // 0: as the command line says
  int64_t log_modules = -1;  // below 0: as the command line says
  bool serving = false;      // a manually started service ran
};

class journal {
 public:
  // The writer is borrowed.
  journal(const std::string& folder, state_writer& writer)
      : path_(folder + kName), writer_(writer) {}

  static constexpr const char* kName = "journal.json";

  // What the predecessor left in the folder; false, with `error` saying why, when there is nothing
  // of use.
  bool load(std::string& error);
  // Writes after a change of `state`, soon.
  void save() const;

  journal_state state;

 private:
  const std::string path_;
  state_writer& writer_;
};

}  // namespace zelta::core_service
