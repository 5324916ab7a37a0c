// SPDX-License-Identifier: Apache-2.0
// The clocks of the base services. Every function may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zelta::base {

// Milliseconds of the monotonic clock: comparable between the processes of one boot.
int64_t tick_ms();

// Milliseconds since 1970-01-01 UTC.
int64_t utc_ms();

// Writes the UTC time of day as "HHMMSS_nnnnnnnnn/" (nanoseconds, 18 bytes with the NUL). The
// nanoseconds keep two recordings apart that start in one second. A buffer that is too short gets
// what fits.
void Time2UTCStrWithSlash_ns(char* buf, int len);

// "2026-01-31T23:59:59.123Z": the form of log lines.
std::string utc_iso_text(int64_t utc_ms);

// "20260131T235959123": the form of file names, which sort by time.
std::string utc_compact_text(int64_t utc_ms);

}  // namespace zelta::base
