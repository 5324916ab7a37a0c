// SPDX-License-Identifier: Apache-2.0
// How loud users are, and who speaks: told to the application at the pace that it asks for, and
// kept beside the files at one of our own.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <functional>
#include <string>

#include "base/event_loop.h"
#include "base/scoped_timer.h"
#include "core_service/engine/event_port.h"
#include "core_service/files/volume_log.h"
#include "core_service/session/roster.h"
#include "core_service/session/speaker_policy.h"
#include "core_service/session/user.h"

namespace zelta::core_service {

class volumes {
 public:
  // Whose are kept, in the order of the setting's words.
  enum class keep { kWhatIsTold, kAll, kNobodys };

  // `lost`: some could not be written, with the reason. All is borrowed.
  volumes(keep whose, files::volume_log& log, base::event_loop& loop, const roster& users,
          event_port& engine, std::function<void(const std::string& why)> lost);

  // Between reports; 0 or less: none.
  void report_every(int interval_ms);
  // While the channel is joined.
  void begin();
  void stop();
  // Somebody who comes.
  void measure(user& one) const;

 private:
  void report();
  void keep_step();
  void check(bool written) const;

  const keep whose_;
  files::volume_log& log_;
  base::event_loop& loop_;
  const roster& users_;
  event_port& engine_;
  const std::function<void(const std::string&)> lost_;
  speaker_policy speaker_;
  bool joined_ = false;
  base::scoped_timer report_tick_;
  base::scoped_timer keep_tick_;
};

}  // namespace zelta::core_service
