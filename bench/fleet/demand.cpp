// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/demand.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

namespace zelta::fleet_model {
namespace {

constexpr double kHour = 3600;
constexpr double kDay = 24 * kHour;
constexpr double kMinute = 60;
constexpr int kMinutes = 24 * 60;  // a day's

}  // namespace

demand::demand(const figures& by, reading of, std::mt19937_64& random) : by_(by), random_(random) {
  a_day_ = by_.recordings;
  if (of == reading::kAtThePeak) {
    a_day_ = 1;
    a_day_ = by_.recordings / at_the_peak();
  }
  for (int at = 0; at < kMinutes; ++at) most_rate_ = std::max(most_rate_, rate(at * kMinute));
}

// Between the middles of two hours it goes from one's to the other's, so that no hour begins with
// a burst that nobody sends.
double demand::rate(double at_s) const {
  const auto& hours = by_.arrivals_by_hour;
  const double sum = std::accumulate(hours.begin(), hours.end(), 0.0);
  const double place = at_s / kHour - 0.5 + 24;
  const auto before = static_cast<size_t>(place);
  const double part = place - std::floor(place);
  const double here = hours[before % 24] * (1 - part) + hours[(before + 1) % 24] * part;
  return a_day_ * here / sum / kHour;
}

// The most that are on at a time, of a day that begins with none.
double demand::at_the_peak() const {
  std::vector<double> lasts;  // what part of them so many minutes
  for (int at = 0; at < kMinutes; ++at) {
    const double s = (at + 0.5) * kMinute;
    const double score = std::log(s / by_.duration_median_s) / std::max(by_.duration_sigma, 1e-6);
    lasts.push_back(s > by_.duration_most_s ? 0 : std::erfc(score / std::sqrt(2.0)) / 2);
  }
  double most = 0;
  for (int now = 0; now < kMinutes; ++now) {
    double on = 0;
    for (int at = 0; at <= now; ++at) {
      on += rate(at * kMinute) * kMinute * lasts[static_cast<size_t>(now - at)];
    }
    most = std::max(most, on);
  }
  return most;
}

std::optional<sim_time> demand::next_arrival(sim_time now) {
  if (!(a_day_ > 0)) return std::nullopt;
  // Drawn at the day's highest rate, and thinned to that of the hour.
  double at = to_seconds(now);
  do {
    at += gap_(random_) / most_rate_;
    if (at >= kDay) return std::nullopt;
  } while (even_(random_) * most_rate_ > rate(at));
  return std::max(now, from_seconds(at));
}

sim_time demand::duration() {
  const double drawn = by_.duration_median_s * std::exp(by_.duration_sigma * normal_(random_));
  return from_seconds(std::clamp(drawn, 1.0, by_.duration_most_s));
}

uint16_t demand::users() {
  const double drawn = by_.users_median * std::exp(by_.users_sigma * normal_(random_));
  return static_cast<uint16_t>(std::clamp(std::round(drawn), 1.0, by_.users_most));
}

}  // namespace zelta::fleet_model
