// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/sender_clock.h"

#include <algorithm>

namespace zelta::core_service::rtp {
namespace {

using media::media_time;
using namespace std::chrono_literals;

// Further from arrival, a timestamp belongs to another beginning.
constexpr media_time kJump = 3s;
// Further from arrival, reports are wrong.
constexpr media_time kMostLead = 5s;
// An older report knows nothing any more of how the clocks drift: arrival does.
constexpr media_time kReportServes = 30s;
constexpr media_time kMostStep = 1ms;
// Of two reports, in what they say of the distance between timestamps and wall clock, and what
// drift adds to it.
constexpr media_time kAgreement = 20ms;
constexpr int64_t kDriftDivisor = 1000;

constexpr media_time absolute(media_time span) {
  return span < 0s ? -span : span;
}

// Of NTP's units of 2^-32 s.
media_time span_of_ntp(uint64_t from, uint64_t to) {
  const auto apart = static_cast<int64_t>(to - from);
  const int64_t seconds = apart / (int64_t{1} << 32);
  const int64_t rest = apart % (int64_t{1} << 32);
  // The rest in 31 bits, or its product with a thousand million would pass the sign.
  return std::chrono::seconds(seconds) +
         media_time((rest / 2 * 1'000'000'000) / (int64_t{1} << 31));
}

}  // namespace

void sender_clocks::report(uint64_t ntp, media_time arrival) {
  if (!floor_.known()) first_ntp_ = ntp;
  floor_.add(arrival, arrival - since_first(ntp));
}

media_time sender_clocks::place(uint64_t ntp, media_time now) {
  return since_first(ntp) + floor_.follow(now);
}

media_time sender_clocks::since_first(uint64_t ntp) const {
  return span_of_ntp(first_ntp_, ntp);
}

sender_clock::sender_clock(uint32_t clock_rate, sender_clocks& sender, media_time most_unproven)
    : clock_rate_(std::max<int64_t>(clock_rate, 1)),
      sender_(sender),
      most_unproven_(most_unproven) {}

sender_clock::placement sender_clock::place(uint32_t timestamp, media_time arrival) {
  if (!begun_) return begin(timestamp, arrival);
  // The counter wraps, so what matters is which way round is shorter.
  const auto step = static_cast<int32_t>(timestamp - latest_timestamp_);
  const media_time media = span_of(latest_ticks_ + step);
  const media_time transit = arrival - media;
  if (step <= -clock_rate_ || absolute(transit - floor_.value()) > kJump) {
    return begin(timestamp, arrival);
  }
  if (step < 0) return {latest_time_ - span_of(-int64_t{step}), false};
  floor_.add(arrival, transit);
  const media_time off = aim(arrival) - offset_;
  if (step == 0) return {latest_time_, false};
  const bool anew = first_by_reports();
  if (anew) {
    offset_ += off;
  } else {
    // Never so much that time would stand still.
    const media_time most = std::min(kMostStep, span_of(step) / 2);
    offset_ += std::clamp(off, -most, most);
  }
  latest_timestamp_ = timestamp;
  latest_ticks_ += step;
  latest_time_ = media + offset_;
  return {latest_time_, anew};
}

void sender_clock::report(uint64_t ntp, uint32_t timestamp, media_time arrival) {
  // A sender without a wall clock says so (RFC 3550, section 6.4.1).
  if (ntp == 0) return;
  sender_.report(ntp, arrival);
  const auto ahead = static_cast<int32_t>(timestamp - latest_timestamp_);
  const report_line one{ntp, timestamp, latest_ticks_ + ahead, arrival};
  const bool agrees = report_ && agree(*report_, one);
  // What was proven is believed until two others agree.
  const bool dissents = report_ && !agrees && proven_ && !(dissenter_ && agree(*dissenter_, one));
  if (dissents) {
    dissenter_ = one;
    return;
  }
  // What was held back is made up for at once.
  if (agrees && !proven_ && bounded_) aligned_ = false;
  proven_ = agrees || dissenter_.has_value();
  dissenter_.reset();
  report_ = one;
}

bool sender_clock::agree(const report_line& one, const report_line& later) const {
  const media_time apart = span_of_ntp(one.ntp, later.ntp);
  const media_time off = span_of(later.ticks - one.ticks) - apart;
  return absolute(off) <= kAgreement + absolute(apart) / kDriftDivisor;
}

sender_clock::placement sender_clock::begin(uint32_t timestamp, media_time arrival) {
  // A report from before a jump is of the time before it; one from before the first packet isn't.
  if (begun_) report_.reset();
  proven_ = false;
  dissenter_.reset();
  if (report_) report_->ticks = static_cast<int32_t>(report_->timestamp - timestamp);
  begun_ = true;
  refused_ = false;
  aligned_ = false;
  lead_ = {};
  latest_timestamp_ = timestamp;
  latest_ticks_ = 0;
  floor_.restart(arrival, arrival);
  offset_ = aim(arrival);
  first_by_reports();
  latest_time_ = offset_;
  return {latest_time_, true};
}

media_time sender_clock::aim(media_time now) {
  const media_time by_arrival = floor_.follow(now);
  if (report_ && now - report_->arrival < kReportServes) {
    const media_time by_reports = sender_.place(report_->ntp, now) - span_of(report_->ticks);
    lead_ = by_reports - by_arrival;
    refused_ = absolute(lead_) > kMostLead;
    if (refused_) lead_ = {};
    bounded_ = !proven_ && absolute(lead_) > most_unproven_;
    if (bounded_) lead_ = believable(lead_);
  }
  return by_arrival + lead_;
}

media_time sender_clock::believable(media_time lead) const {
  if (absolute(lead) > kWrongBeyond * most_unproven_) return {};
  return std::clamp(lead, -most_unproven_, most_unproven_);
}

bool sender_clock::first_by_reports() {
  if (aligned_ || !by_reports()) return false;
  aligned_ = true;
  return true;
}

media_time sender_clock::span_of(int64_t ticks) const {
  return std::chrono::seconds(ticks / clock_rate_) +
         media_time(ticks % clock_rate_ * 1'000'000'000 / clock_rate_);
}

}  // namespace zelta::core_service::rtp
