// SPDX-License-Identifier: Apache-2.0
// A log line that is streamed together.
#pragma once

#include <cstdint>
#include <sstream>

#include "base/log.h"

namespace zelta::base {

// Collects one line and writes it when it goes out of scope, also when nothing was streamed. A
// local of one thread. `logdir` is borrowed until then.
class safe_log {
 public:
  safe_log(const char* logdir, const char* file, int line, int severity, zelta_log_module module);
  safe_log(const char* file, int line, int severity, zelta_log_module module);
  safe_log(const safe_log&) = delete;
  safe_log& operator=(const safe_log&) = delete;
  ~safe_log();

  std::ostream& stream() { return sout_; }

 private:
  int32_t severity_;
  zelta_log_module module_;
  std::ostringstream sout_;
  const char* logdir_;
};

}  // namespace zelta::base
