// SPDX-License-Identifier: Apache-2.0
#include "base/clocks.h"

#include <cstdio>
#include <ctime>

namespace zelta::base {
namespace {

std::tm utc_calendar(int64_t utc_ms) {
  const std::time_t seconds = utc_ms / 1000;
  std::tm calendar{};
  gmtime_r(&seconds, &calendar);
  return calendar;
}

// `format` names a strftime pattern; the milliseconds follow it with three digits.
std::string text_with_ms(int64_t utc_ms, const char* format, const char* suffix) {
  const std::tm calendar = utc_calendar(utc_ms);
  char date[40];
  std::strftime(date, sizeof date, format, &calendar);
  char text[64];
  std::snprintf(text, sizeof text, "%s%03d%s", date, static_cast<int>(utc_ms % 1000), suffix);
  return text;
}

}  // namespace

int64_t tick_ms() {
  using std::chrono::steady_clock;
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             steady_clock::now().time_since_epoch())
      .count();
}

int64_t utc_ms() {
  using std::chrono::system_clock;
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             system_clock::now().time_since_epoch())
      .count();
}

void Time2UTCStrWithSlash_ns(char* buf, int len) {
  if (buf == nullptr || len <= 0) return;
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::tm calendar = utc_calendar(static_cast<int64_t>(now.tv_sec) * 1000);
  std::snprintf(buf, static_cast<size_t>(len), "%02d%02d%02d_%09ld/", calendar.tm_hour,
                calendar.tm_min, calendar.tm_sec, now.tv_nsec);
}

std::string utc_iso_text(int64_t utc_ms) {
  return text_with_ms(utc_ms, "%Y-%m-%dT%H:%M:%S.", "Z");
}

std::string utc_compact_text(int64_t utc_ms) {
  return text_with_ms(utc_ms, "%Y%m%dT%H%M%S", "");
}

}  // namespace zelta::base
