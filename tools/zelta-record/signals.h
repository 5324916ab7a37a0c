// SPDX-License-Identifier: Apache-2.0
// The signals that end a recording: SIGINT, SIGTERM, SIGHUP.
#pragma once

#include "base/unique_fd.h"

namespace zelta::record {

// Main thread. One a process.
class signal_watch {
 public:
  // Made before any other thread, which inherits that the signals are blocked; the recorder
  // doesn't. One that is ignored stays so: nohup, and a shell's jobs in the background, want it
  // that way.
  signal_watch();

  // Readable when a signal has come.
  int fd() const { return signals_.get(); }
  // The number of the next one, 0 when there is none.
  int take();
  // For the time in which the files are completed: a first signal has no effect, a second SIGINT or
  // SIGTERM ends the process with 128 and its number. The recorder then notices that its engine is
  // gone and completes the files by itself.
  void end_at_the_next();

 private:
  base::unique_fd signals_;
};

}  // namespace zelta::record
