// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/volumes.h"

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "core_service/media/timeline.h"

namespace zelta::core_service {

using measured = media::volume_meter::ask;

volumes::volumes(keep whose, files::volume_log& log, base::event_loop& loop, const roster& users,
                 event_port& engine, std::function<void(const std::string& why)> lost)
    : whose_(whose),
      log_(log),
      loop_(loop),
      users_(users),
      engine_(engine),
      lost_(std::move(lost)) {}

void volumes::measure(user& one) const {
  one.measure_volume(whose_ == keep::kAll || report_tick_.runs() ? measured::kAll
                     : whose_ == keep::kWhatIsTold               ? measured::kWhatIsTold
                                                                 : measured::kNothing);
}

void volumes::report_every(int interval_ms) {
  report_tick_.stop();
  if (interval_ms > 0) report_tick_ = {loop_, interval_ms, [this] { report(); }};
  users_.each([&](uint32_t, user& one) {
    measure(one);
    // What was before isn't reported.
    one.volume_to_report();
  });
}

void volumes::begin() {
  joined_ = true;
  if (whose_ == keep::kNobodys) return;
  keep_tick_ = {loop_, files::volume_log::kStepMs, [this] { keep_step(); }};
}

void volumes::stop() {
  joined_ = false;
  keep_tick_.stop();
  check(log_.flush());
}

void volumes::report() {
  if (!joined_ || users_.size() == 0) return;
  std::vector<uint32_t> uids;
  std::vector<uint32_t> loud;
  users_.each([&](uint32_t uid, user& one) {
    uids.push_back(uid);
    loud.push_back(one.volume_to_report());
  });
  const auto speaker = speaker_.listen(uids, loud);
  engine_.volumes(std::move(uids), std::move(loud));
  if (speaker) engine_.active_speaker(*speaker);
}

void volumes::keep_step() {
  std::map<uint32_t, uint32_t> loud;
  users_.each([&](uint32_t uid, user& one) {
    const uint32_t volume = one.volume_to_keep();
    if (volume > 0) loud[uid] = volume;
  });
  check(users_.serves() ? log_.add(media::now(), loud) : log_.flush());
}

void volumes::check(bool written) const {
  if (!written) lost_("the disk is too slow for them");
}

}  // namespace zelta::core_service
