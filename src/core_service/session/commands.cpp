// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/commands.h"

#include <utility>

#include "core_service/task/parameters.h"
#include "protocol/mixing_layout.h"

namespace zelta::core_service {

commands::commands(const recording_plan& plan, bool manual, live_settings& live, roster& users,
                   journal& kept, ending& end, base::logger log, events told)
    : plan_(plan),
      manual_(manual),
      live_(live),
      users_(users),
      journal_(kept),
      ending_(end),
      log_(std::move(log)),
      events_(std::move(told)) {}

void commands::recover() {
  const journal_state& state = journal_.state;
  if (state.log_level != 0) {
    base::log_config::set_log_level(static_cast<base::log_levels>(state.log_level));
  }
  if (state.log_modules >= 0) {
    base::log_config::set_enabled_modules(static_cast<uint32_t>(state.log_modules));
  }
  if (!state.layout.empty()) apply_layout(state.layout);
  for (const auto& [uid, path] : state.user_backgrounds) {
    if (users_.mix() != nullptr) users_.mix()->set_user_background(uid, path);
  }
}

void commands::on_leave_command() {
  ending_.on_leave_command();
}

// An engine that died can't be told anything, but its recording is worth completing.
void commands::on_engine_gone() {
  ending_.on_engine_gone();
}

void commands::on_log_level(uint32_t level) {
  base::log_config::set_log_level(static_cast<base::log_levels>(level));
  journal_.state.log_level = level;
  journal_.save();
}

void commands::on_log_modules(uint32_t modules, bool enable) {
  if (enable) {
    base::log_config::enable_module(modules);
  } else {
    base::log_config::disable_module(modules);
  }
  journal_.state.log_modules = base::log_config::get_enabled_modules();
  journal_.save();
}

void commands::on_parameters(const std::string& text) {
  std::vector<std::string> warnings;
  const parameters changed = parse_parameters(text, warnings);
  for (const std::string& warning : warnings) log_.warn(warning);
  if (changed.idle) live_.idle_s = *changed.idle;
  if (changed.audio_indication_interval) {
    live_.volume_interval_ms = *changed.audio_indication_interval;
    events_.volume_interval_changed();
  }
  if (!changed.capture_interval) return;
  live_.capture_interval_s = *changed.capture_interval;
  users_.each([this](uint32_t, user& one) { one.set_still_interval(live_.capture_interval_s); });
}

void commands::on_layout(const std::vector<uint8_t>& bytes) {
  if (!apply_layout(bytes)) return;
  journal_.state.layout = bytes;
  journal_.save();
}

bool commands::apply_layout(const std::vector<uint8_t>& bytes) {
  recording::mixing_layout layout;
  if (!recording::decodeMixingLayout(bytes, layout)) {
    log_.warn("a mixing layout that makes no sense was ignored");
    return false;
  }
  if (users_.mix() == nullptr || !plan_.mix_video) {
    log_.warn("a mixing layout has no effect: no pictures are mixed");
    return false;
  }
  users_.mix()->set_layout(layout);
  return true;
}

void commands::on_user_background(uint32_t uid, const std::string& path) {
  if (users_.mix() == nullptr || !plan_.mix_video) {
    return log_.warn("a user's background has no effect: no pictures are mixed");
  }
  users_.mix()->set_user_background(uid, path);
  journal_.state.user_backgrounds[uid] = path;
  journal_.save();
}

void commands::on_start_service() {
  if (manual_) set_serving(true);
}

void commands::on_stop_service() {
  if (manual_) set_serving(false);
}

void commands::set_serving(bool serving) {
  if (serving == users_.serves() || ending_.has_begun()) return;
  constexpr files::end_reason kStopped = files::end_reason::kServiceStopped;
  log_.notice(serving ? "service started" : files::name_of(kStopped));
  if (serving) {
    users_.start_service();
  } else {
    users_.stop_service(kStopped);
  }
  journal_.state.serving = serving;
  journal_.save();
}

}  // namespace zelta::core_service
