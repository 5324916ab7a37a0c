// SPDX-License-Identifier: Apache-2.0
// The one place where it is told that something isn't recorded: in the manifest, in the log, and
// to the engine, each once.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "base/logger.h"
#include "core_service/engine/event_port.h"
#include "core_service/folder/manifest.h"

namespace zelta::core_service {

class missing_report {
 public:
  // Both are borrowed.
  missing_report(manifest& files, event_port& engine, base::logger log)
      : files_(files), engine_(engine), log_(std::move(log)) {}

  // The recording goes on: the rest of the user and all others are recorded. `uid` 0: nobody's.
  void tell(uint32_t uid, const missing_medium& what) {
    if (!files_.note_missing(uid, what)) return;
    files_.changed();
    const std::string text = "not recorded (" + what.medium + (what.codec.empty() ? "" : ", ") +
                             what.codec + "): " + what.reason;
    // The application knows nobody whom that without a user could concern.
    if (uid == 0) return log_.warn(text);
    log_.error("user " + std::to_string(uid) + ": " + text);
    engine_.not_recorded();
  }
  // It is recorded again, or nobody is there any more of whom it could be.
  void over(uint32_t uid, const std::string& medium) { files_.end_missing(uid, medium); }

 private:
  manifest& files_;
  event_port& engine_;
  const base::logger log_;
};

}  // namespace zelta::core_service
