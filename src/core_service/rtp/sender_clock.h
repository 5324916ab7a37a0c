// SPDX-License-Identifier: Apache-2.0
// Places what senders sent on our timeline, by the timestamps of their packets. One thread; no
// class here has a clock, all are told the time.
//
// A stream's timestamps say when its media were captured, apart from each other; the arrivals of
// its packets, where all of that lies on our timeline, give or take the way here; the sender's
// reports, how its streams lie to each other (RFC 3550, section 6.4.1).
#pragma once

#include <cstdint>
#include <optional>

#include "core_service/media/timeline.h"
#include "core_service/rtp/transit_floor.h"

namespace zelta::core_service::rtp {

// A sender's wall clock, by the reports of all its streams. It outlives the streams' own.
class sender_clocks {
 public:
  // `ntp`: the report's timestamp, in units of 2^-32 s.
  void report(uint64_t ntp, media::media_time arrival);
  // Our time of a moment on the sender's clock, as far as is known `now`; needs a report.
  media::media_time place(uint64_t ntp, media::media_time now);

 private:
  // Since the first report: NTP's own zero is too far away, and in 2036 the seconds wrap.
  media::media_time since_first(uint64_t ntp) const;

  uint64_t first_ntp_ = 0;
  transit_floor floor_;
};

class sender_clock {
 public:
  struct placement {
    media::media_time time;
    // The times before this one say nothing about it: the stream began, jumped, or was laid on the
    // sender's other streams. Else its time is as far from the one before as the timestamps say,
    // give or take a millisecond.
    bool anew;
  };

  // Browsers' first reports of sound may be wrong by hundreds of milliseconds: seen with Chromium,
  // whose second one, 3 to 6 s later, was right, and whose right ones move sound by 20 to 50 ms.
  static constexpr media::media_time kMostOfSound = std::chrono::milliseconds(30);
  // One that says so many times as much is such a wrong one, and moves nothing: sound would stand
  // that much away from where its packets rightly lay it.
  static constexpr int kWrongBeyond = 3;

  // `clock_rate`: of the timestamps, in Hz. `sender` is borrowed. `most_unproven`: a report that no
  // other agrees with moves the stream by no more than that, and not at all if it says much more.
  sender_clock(uint32_t clock_rate, sender_clocks& sender,
               media::media_time most_unproven = media::media_time::max());

  // Every packet, in the order of the sequence numbers. Packets of one timestamp get one time; one
  // that goes back by less than a second, as pictures do that are shown before those that they are
  // made from, is as much before the latest.
  placement place(uint32_t timestamp, media::media_time arrival);
  // A sender report of this stream's.
  void report(uint64_t ntp, uint32_t timestamp, media::media_time arrival);

  // Whether the stream is placed by its reports.
  bool by_reports() const { return report_.has_value() && !refused_; }
  // Whether the reports can't be right, and the stream is placed by arrival in spite of them: what
  // they say is seconds away from when its packets come.
  bool reports_refused() const { return refused_; }

 private:
  struct report_line {
    uint64_t ntp;
    uint32_t timestamp;
    int64_t ticks;  // `timestamp`, in the units of latest_ticks_
    media::media_time arrival;
  };

  bool agree(const report_line& one, const report_line& later) const;
  placement begin(uint32_t timestamp, media::media_time arrival);
  // What is to be added to media times. Brings the floor on.
  media::media_time aim(media::media_time now);
  // Of what a report says that none agrees with.
  media::media_time believable(media::media_time lead) const;
  bool first_by_reports();
  media::media_time span_of(int64_t ticks) const;

  const int64_t clock_rate_;
  sender_clocks& sender_;
  const media::media_time most_unproven_;
  bool begun_ = false;
  uint32_t latest_timestamp_ = 0;
  int64_t latest_ticks_ = 0;  // since the beginning
  media::media_time latest_time_{};
  transit_floor floor_;
  media::media_time offset_{};
  std::optional<report_line> report_;
  bool proven_ = false;                   // another has agreed with it
  bool bounded_ = false;                  // it would have moved the stream further
  std::optional<report_line> dissenter_;  // the latest, which doesn't
  bool refused_ = false;
  bool aligned_ = false;      // has been placed by reports since the beginning
  media::media_time lead_{};  // of reports to arrival
};

}  // namespace zelta::core_service::rtp
