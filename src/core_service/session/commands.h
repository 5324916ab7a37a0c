// SPDX-License-Identifier: Apache-2.0
// What the engine asks for, carried out and kept in the journal for a recorder that may have to go
// on after this one.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/logger.h"
#include "core_service/engine/engine_link.h"
#include "core_service/folder/journal.h"
#include "core_service/session/ending.h"
#include "core_service/session/roster.h"
#include "core_service/task/live_settings.h"
#include "core_service/task/recording_plan.h"

namespace zelta::core_service {

class commands final : public engine_listener {
 public:
  struct events {
    std::function<void()> volume_interval_changed;
  };

  // `manual`: the service runs when it is told to. All is borrowed.
  commands(const recording_plan& plan, bool manual, live_settings& live, roster& users,
           journal& kept, ending& end, base::logger log, events told);

  // Goes on where the process before this one was stopped, by the journal.
  void recover();

  void on_leave_command() override;
  void on_log_level(uint32_t level) override;
  void on_log_modules(uint32_t modules, bool enable) override;
  void on_parameters(const std::string& text) override;
  void on_layout(const std::vector<uint8_t>& bytes) override;
  void on_start_service() override;
  void on_stop_service() override;
  void on_user_background(uint32_t uid, const std::string& path) override;
  void on_engine_gone() override;

 private:
  bool apply_layout(const std::vector<uint8_t>& bytes);
  void set_serving(bool serving);

  const recording_plan& plan_;
  const bool manual_;
  live_settings& live_;
  roster& users_;
  journal& journal_;
  ending& ending_;
  const base::logger log_;
  const events events_;
};

}  // namespace zelta::core_service
