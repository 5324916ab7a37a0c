// SPDX-License-Identifier: Apache-2.0
// The end of a session, in steps:
//
//     starting ─▶ recording ─▶ finishing ─▶ lingering ─▶ done
//
// While it finishes, files are completed. A recorder that left by itself then lingers until the
// engine hangs up: an application that leaves when it is told so never sees the link break.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/scoped_timer.h"
#include "core_service/engine/engine_link.h"
#include "core_service/engine/event_port.h"

namespace zelta::core_service {

// Exit statuses of the recorder; the engine logs them.
enum exit_status : int {
  kExitDone = 0,       // left in order; also when the engine was gone
  kExitUsage = 2,      // the command line or the settings can't be used
  kExitNotJoined = 3,  // the channel could not be joined
  kExitDisk = 4,       // a file could not be written
};

class ending {
 public:
  struct actions {
    // Nothing more is taken up; what has come goes into the files.
    std::function<void()> finish;
    std::function<bool()> is_complete;
    // All files are complete: what tells of them is written for the last time.
    std::function<void()> seal;
  };

  // All is borrowed. The loop is stopped when all is done.
  ending(base::event_loop& loop, engine_link& link, event_port& engine, base::logger log,
         actions steps);

  bool records() const { return phase_ == phase::kRecording; }
  bool has_begun() const { return phase_ > phase::kRecording; }
  bool is_over() const { return phase_ == phase::kDone; }
  int status() const { return status_; }
  // In words, for the manifest.
  const char* reason() const;

  void note_joined() { phase_ = phase::kRecording; }
  // `reason` is one of LEAVE_CODE_…. Once: what comes later changes nothing.
  void leave(uint32_t reason, int status);
  // Without the steps of an end: there is nothing that could be completed.
  void refuse(int status);
  // The engine asks for the end.
  void on_leave_command();
  // It has hung up.
  void on_engine_gone();
  // One that comes during the end doesn't wait for anything.
  void on_signal();
  // Goes on when everything is complete.
  void check();

 private:
  enum class phase { kStarting, kRecording, kFinishing, kLingering, kDone };

  void linger();
  void done();

  base::event_loop& loop_;
  engine_link& link_;
  event_port& engine_;
  const base::logger log_;
  const actions steps_;
  base::scoped_timer linger_timer_;
  phase phase_ = phase::kStarting;
  uint32_t reason_ = 0;
  int status_ = kExitDone;
};

}  // namespace zelta::core_service
