// SPDX-License-Identifier: Apache-2.0
#include "base/safe_log.h"

#include <exception>
#include <locale>

#include <unistd.h>

namespace zelta::base {

safe_log::safe_log(const char* logdir, const char* file, int line, int severity,
                   zelta_log_module module)
    : severity_(severity), module_(module), logdir_(logdir) {
  // Whoever reads logs by program wants plain numbers, whatever the application's locale groups.
  sout_.imbue(std::locale::classic());
  sout_ << file << ":" << line << ": ";
}

safe_log::safe_log(const char* file, int line, int severity, zelta_log_module module)
    : safe_log(nullptr, file, line, severity, module) {}

// The text is an argument and never a format: it may hold percent signs of a peer's.
safe_log::~safe_log() {
  try {
    log_dir(logdir_, static_cast<log_levels>(severity_), module_, "(%d) %s", getpid(),
            sout_.str().c_str());
  } catch (const std::exception&) {
    // The line is lost for want of memory.
  }
}

}  // namespace zelta::base
