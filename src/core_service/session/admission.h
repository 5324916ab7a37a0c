// SPDX-License-Identifier: Apache-2.0
// Who is let in, and what is done when there is too much of it all: room of every kind is measured,
// and what the rules of load/ answer is carried out. Everybody who has to wait or go is told, and
// taken up when there is room.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "core_service/load/overload_rules.h"
#include "core_service/load/waiting_list.h"
#include "core_service/media/media_feed.h"
#include "core_service/session/missing_report.h"
#include "core_service/session/roster.h"
#include "core_service/task/recording_plan.h"

namespace zelta::core_service {

class admission {
 public:
  struct actions {
    std::function<void(uint32_t uid, std::shared_ptr<media::media_feed> from)> let_in;
    // What the channel says of a user: offered() comes from inside while they are there, else
    // false.
    std::function<bool(uint32_t uid)> offer_again;
    // The load of the second that has passed.
    std::function<load::reading()> read_load;
  };

  // `most_users` 0: as many as the machine takes. Roster and report are borrowed.
  admission(int most_users, const recording_plan& plan, roster& users, missing_report& missing,
            base::logger log, actions carry_out);

  // What a recorder before this one left out is made again.
  void take_over();
  // Users may come.
  void open();
  // A user is in the channel; `media` opens what they send.
  void offered(uint32_t uid, const media::open_media& media);
  // Is in the channel no more. Whether they waited.
  bool gone(uint32_t uid);
  bool anybody_waits() const { return !waiting_.empty(); }
  // Before all else of a tick: coming and going of many at once leaves room for other work.
  void begin_tick(int64_t now_ms) { work_until_ms_ = now_ms + kUserWorkMs; }
  void tick(int64_t now_ms);
  // Nobody goes in silence.
  void close();
  // Applies what is left out now to one who has just come.
  void leave_out_of(user& one) const;

 private:
  static constexpr int64_t kUserWorkMs = 200;

  std::string shortage() const;
  void turn_away(uint32_t uid, const std::string& why, int64_t tell_ms);
  void measure();
  void tell_left_out();
  void let_go();
  void call_in();
  void tell_who_waits(int64_t now_ms);

  const size_t most_users_;
  const std::vector<load::shed> sheddable_;
  roster& users_;
  missing_report& missing_;
  const base::logger log_;
  const actions carry_out_;
  load::overload_rules rules_;
  load::waiting_list waiting_;
  std::set<load::shed> left_out_;
  int64_t measured_ms_ = 0;
  int64_t work_until_ms_ = 0;
};

}  // namespace zelta::core_service
