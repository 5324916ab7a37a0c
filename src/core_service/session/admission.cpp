// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/admission.h"

#include <limits>
#include <thread>
#include <utility>

#include "base/clocks.h"
#include "core_service/load/descriptors.h"
#include "core_service/load/room_left.h"

namespace zelta::core_service {
namespace {

// The load is measured so often.
constexpr int64_t kMeasureMs = 1000;
// Whoever comes with many others is let in with the next of them, and hears of it only if that
// takes so long.
constexpr int64_t kTellBusyMs = 10'000;
constexpr const char* kTooBusy =
    "turned away, because the machine is too busy for more; taken up when there is room";
constexpr const char* kLetGo =
    "let go, because the machine is too busy for all; taken up again when there is room";

std::vector<load::shed> sheddable_of(const recording_plan& plan) {
  std::vector<load::shed> made;
  if (plan.jpg_packets || plan.jpg_files) made.push_back(load::shed::kStills);
  if (plan.mix_video) made.push_back(load::shed::kMixPictures);
  if (plan.video_out == video_frames::kYuv) made.push_back(load::shed::kApplicationPictures);
  return made;
}

missing_medium missing_of(load::shed what) {
  const char* const reason = "left out for a while, because the machine was too busy";
  switch (what) {
    case load::shed::kStills:
      return {"captured pictures", "", reason};
    case load::shed::kMixPictures:
      return {"every second picture of the mix", "", reason};
    case load::shed::kApplicationPictures:
      break;
  }
  return {"pictures for the application", "", reason};
}

}  // namespace

admission::admission(int most_users, const recording_plan& plan, roster& users,
                     missing_report& missing, base::logger log, actions carry_out)
    : most_users_(static_cast<size_t>(most_users)),
      sheddable_(sheddable_of(plan)),
      users_(users),
      missing_(missing),
      log_(std::move(log)),
      carry_out_(std::move(carry_out)),
      rules_(sheddable_, std::thread::hardware_concurrency()) {}

void admission::take_over() {
  for (const load::shed what : sheddable_) missing_.over(0, missing_of(what).medium);
}

void admission::open() {
  // How long the start took says nothing of the load.
  measured_ms_ = base::tick_ms();
  begin_tick(measured_ms_);
}

// ---- Coming --------------------------------------------------------------------------------

// Empty when there is room for one more user.
std::string admission::shortage() const {
  if (most_users_ != 0 && users_.size() >= most_users_) {
    return std::to_string(most_users_) +
           " users at a time is the most (most_users of the settings)";
  }
  // One who takes the last descriptor takes it from all others' files.
  return shortage_beyond(users_.size_with_leaving());
}

void admission::offered(uint32_t uid, const media::open_media& media) {
  const int64_t now = base::tick_ms();
  const std::string want = shortage();
  if (!want.empty()) return turn_away(uid, want, now);
  if (rules_.room() == 0 || now > work_until_ms_) {
    return turn_away(uid, kTooBusy, now + kTellBusyMs);
  }
  std::shared_ptr<media::media_feed> from = media();
  if (!from) return;
  const size_t wanted = from->threads();
  const std::string threads = wanted > 0 ? load::shortage_of_threads(wanted) : "";
  if (!threads.empty()) return turn_away(uid, threads, now);
  waiting_.remove(uid);
  // What was told of them by a recorder before this one is over, too.
  missing_.over(uid, "all");
  rules_.let_in();
  carry_out_.let_in(uid, std::move(from));
}

void admission::turn_away(uint32_t uid, const std::string& why, int64_t tell_ms) {
  const bool at_once = tell_ms <= base::tick_ms();
  if (at_once) missing_.tell(uid, {"all", "", why});
  waiting_.add({uid, why, tell_ms, at_once});
}

bool admission::gone(uint32_t uid) {
  if (!waiting_.remove(uid)) return false;
  missing_.over(uid, "all");
  return true;
}

void admission::call_in() {
  while (!waiting_.empty() && rules_.room() > 0 && base::tick_ms() <= work_until_ms_ &&
         shortage().empty()) {
    const uint32_t uid = waiting_.first();
    const bool here = carry_out_.offer_again(uid);
    if (users_.has(uid)) continue;
    if (!here) {
      waiting_.remove(uid);
      continue;
    }
    // What keeps them out may keep nobody else.
    waiting_.put_last(uid);
    break;
  }
  tell_who_waits(base::tick_ms());
}

// Those whose time it is; and all, if there is another reason by now than that many came at once.
void admission::tell_who_waits(int64_t now_ms) {
  const std::string want = waiting_.empty() ? "" : shortage();
  for (auto& one : waiting_.all()) {
    if (one.told || (want.empty() && one.tell_ms > now_ms)) continue;
    one.told = true;
    if (!want.empty()) one.why = want;
    missing_.tell(one.uid, {"all", "", one.why});
  }
}

// ---- The load ------------------------------------------------------------------------------

void admission::tick(int64_t now_ms) {
  if (now_ms - measured_ms_ >= kMeasureMs) measure();
  call_in();
}

void admission::measure() {
  measured_ms_ = base::tick_ms();
  rules_.read(carry_out_.read_load());
  tell_left_out();
  let_go();
}

void admission::tell_left_out() {
  for (const load::shed what : sheddable_) {
    const bool left_out = rules_.leaves_out(what);
    if (left_out == (left_out_.count(what) != 0)) continue;
    const missing_medium told = missing_of(what);
    if (left_out) {
      left_out_.insert(what);
      missing_.tell(0, told);
    } else {
      left_out_.erase(what);
      missing_.over(0, told.medium);
      log_.notice(told.medium + ": made again");
    }
    if (what == load::shed::kMixPictures) {
      users_.mix()->halve_pictures(left_out);
    } else {
      users_.each([this](uint32_t, user& one) { leave_out_of(one); });
    }
  }
}

void admission::leave_out_of(user& one) const {
  one.leave_out(rules_.leaves_out(load::shed::kStills),
                rules_.leaves_out(load::shed::kApplicationPictures));
}

// Who came last has the least to lose.
void admission::let_go() {
  const int64_t until = base::tick_ms() + kUserWorkMs;
  for (size_t left = rules_.too_many(users_.size()); left > 0; --left) {
    if (base::tick_ms() > until) return;
    const uint32_t uid = users_.last();
    users_.end(uid, files::end_reason::kLetGo);
    turn_away(uid, kLetGo, base::tick_ms());
  }
}

void admission::close() {
  tell_who_waits(std::numeric_limits<int64_t>::max());
  waiting_.clear();
}

}  // namespace zelta::core_service
