// SPDX-License-Identifier: Apache-2.0
#include "core_service/load/overload_rules.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::load {
namespace {

using namespace std::chrono_literals;
using media::media_time;

// Packets wait 40 ms for each other, and for their turn in the loop.
constexpr media_time kNoticeable = 500ms;
constexpr media_time kTooLate = 1s;
constexpr media_time kDiskNoticeable = 2s;
constexpr uint64_t kLittleMemory = uint64_t{128} << 20;
constexpr uint64_t kHardlyAnyMemory = uint64_t{48} << 20;

// So many come at once, and the next when these have been seen to be no burden.
constexpr size_t kBatchOfAProcessor = 250;
constexpr int kProvingS = 2;
// A stall of a moment lets nobody go.
constexpr int kLastsS = 3;
// Of the users in a second.
constexpr double kLeastLetGo = 1.0 / 32;
constexpr double kMostLetGo = 1.0 / 4;
// Who catches up so fast needs nothing but time.
constexpr media_time kCatchesUp = 100ms;
constexpr int kPatienceS = 5;
constexpr int kMostPatienceS = 160;
// What was taken up again and is too much at once is tried less and less often.
constexpr int kRelapseS = 30;
constexpr int kClosedS = 15;
constexpr int kMostClosedS = 480;

}  // namespace

overload_rules::overload_rules(std::vector<shed> made, unsigned processors)
    : made_(std::move(made)),
      batch_(kBatchOfAProcessor * std::max(processors, 1U)),
      room_(batch_),
      patience_s_(kPatienceS),
      closes_s_(kClosedS),
      since_eased_s_(kRelapseS) {}

overload_rules::pressure overload_rules::pressure_of(const reading& now) const {
  const bool behind = now.behind > kNoticeable;
  const bool too_late = now.behind > kTooLate && growth_ > -kCatchesUp;
  if (too_late || (behind && now.lost) || now.free_bytes < kHardlyAnyMemory) {
    return pressure::kTooMuch;
  }
  const bool tight = behind || now.disk_behind > kDiskNoticeable || now.free_bytes < kLittleMemory;
  return tight ? pressure::kTight : pressure::kCalm;
}

void overload_rules::read(const reading& now) {
  ++since_eased_s_;
  closed_s_ = std::max(closed_s_ - 1, 0);
  growth_ = now.behind - std::exchange(behind_, now.behind);
  const pressure is = pressure_of(now);
  calm_s_ = is == pressure::kCalm ? calm_s_ + 1 : 0;
  if (is != pressure::kCalm) room_ = 0;
  if (is != pressure::kTooMuch) {
    too_much_s_ = 0;
    if (is == pressure::kCalm) open_doors();
    return;
  }
  if (left_out_ == made_.size()) {
    if (++too_much_s_ < kLastsS) return;
    if (closed_s_ == 0) {
      closed_s_ = closes_s_;
      closes_s_ = std::min(2 * closes_s_, kMostClosedS);
    }
    return;
  }
  ++left_out_;
  if (since_eased_s_ < kRelapseS) patience_s_ = std::min(2 * patience_s_, kMostPatienceS);
}

// What was left out last comes back first, and users only when there is all.
void overload_rules::open_doors() {
  if (left_out_ > 0) {
    if (calm_s_ < patience_s_) return;
    --left_out_;
    calm_s_ = 0;
    since_eased_s_ = 0;
    return;
  }
  if (closed_s_ > 0 || calm_s_ < kProvingS) return;
  room_ = batch_;
}

bool overload_rules::leaves_out(shed what) const {
  const auto end = made_.begin() + static_cast<std::ptrdiff_t>(left_out_);
  return std::find(made_.begin(), end, what) != end;
}

void overload_rules::let_in() {
  if (room_ > 0) --room_;
  // They are no burden yet.
  calm_s_ = 0;
}

// Whoever falls behind by half a second in each second can do half of the work. Half of what that
// asks for, because what is seen is a second old.
size_t overload_rules::too_many(size_t users) const {
  if (too_much_s_ < kLastsS || users < 2) return 0;
  const double share = std::chrono::duration<double>(growth_).count() / 2;
  const double let_go = std::clamp(share, kLeastLetGo, kMostLetGo) * static_cast<double>(users);
  return std::max(static_cast<size_t>(let_go), size_t{1});
}

}  // namespace zelta::core_service::load
