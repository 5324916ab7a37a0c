// SPDX-License-Identifier: Apache-2.0
// The log of the process: what is written (log_config) and the printf-style calls.
//
// Everything here may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "base/locks.h"

namespace zelta::base {

// Lower is more severe. The public zelta_log_level has the same numbers.
enum log_levels : uint32_t {
  FATAL_LOG = 1,
  ERROR_LOG = 2,
  WARN_LOG = 3,
  NOTICE_LOG = 4,
  INFO_LOG = 5,
  DEBUG_LOG = 6,
};

// Bits of a mask.
enum zelta_log_module : uint32_t {
  ZELTA_LOG_MODULE_MEDIA_FILE = 1,
  ZELTA_LOG_MODULE_RECORDING_ENGINE = 2,
  ZELTA_LOG_MODULE_RTMP_RENDER = 4,
  ZELTA_LOG_MODULE_IPC = 8,
  ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER = 16,
  ZELTA_LOG_MODULE_COMMON = 32,
  ZELTA_LOG_MODULE_ANY = 0xFFFFFFFF,
};

// One configuration a process. The values are atomic because every line reads them without the
// lock; changes that depend on the old value are made under it.
class log_config {
 public:
  using config_lock = std::lock_guard<Mutexer>;

  static Mutexer logger_mutex;
  // The most verbose level that is written; notice at first.
  static std::atomic<log_levels> enabled_level;
  // All modules at first.
  static std::atomic<uint32_t> enabled_modules;
  // A syslog facility as in <syslog.h>; LOG_USER at first.
  static std::atomic<uint32_t> facility;
  // Non-zero writes every line, however many there are.
  static std::atomic<uint32_t> drop_cancel;
  // Lines a second and folder; what goes past that and is less severe than an error is dropped and
  // its number told afterwards, so that a flood of warnings can't fill a disk.
  static const uint32_t DROP_COUNT;

  static int convert_to_syslog_level(log_levels level);
  static void set_log_level(log_levels level);
  static log_levels get_log_level() { return enabled_level; }
  static uint32_t get_enabled_modules() { return enabled_modules; }
  static void enable_all_modules() { set_enabled_modules(ZELTA_LOG_MODULE_ANY); }
  static void disable_all_modules() { set_enabled_modules(0); }
  static void enable_module(uint32_t modules);
  static void disable_module(uint32_t modules);
  static void set_enabled_modules(uint32_t modules);
  static bool log_enabled(log_levels level, zelta_log_module module);
  static void set_drop_cannel(uint32_t cancel) { drop_cancel = cancel; }
  static uint32_t getFacility() { return facility; }
  static void setFacility(uint32_t value) { facility = value; }
  static void lock() { logger_mutex.lock(); }
  static void unlock() { logger_mutex.unlock(); }
  static bool trylock() { return logger_mutex.try_lock(); }
};

// Writes one line to standard error and syslog.
void log(log_levels level, zelta_log_module module, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Writes one line to recording_engine.log in `dir` and syslog. A null or empty `dir` means log():
// what happens before the folder is known is seen there. A null string for %s is written "(null)".
void log_dir(const char* dir, log_levels level, zelta_log_module module, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace zelta::base
