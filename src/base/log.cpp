// SPDX-License-Identifier: Apache-2.0
#include "base/log.h"

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include <syslog.h>
#include <unistd.h>

#include "base/clocks.h"
#include "base/log_file.h"

namespace zelta::base {

Mutexer log_config::logger_mutex;
std::atomic<log_levels> log_config::enabled_level{NOTICE_LOG};
std::atomic<uint32_t> log_config::enabled_modules{ZELTA_LOG_MODULE_ANY};
std::atomic<uint32_t> log_config::facility{LOG_USER};
std::atomic<uint32_t> log_config::drop_cancel{0};
const uint32_t log_config::DROP_COUNT = 1000;

int log_config::convert_to_syslog_level(log_levels level) {
  switch (level) {
    case FATAL_LOG:
      return LOG_CRIT;
    case ERROR_LOG:
      return LOG_ERR;
    case WARN_LOG:
      return LOG_WARNING;
    case NOTICE_LOG:
      return LOG_NOTICE;
    case INFO_LOG:
      return LOG_INFO;
    case DEBUG_LOG:
      break;
  }
  return LOG_DEBUG;
}

void log_config::set_log_level(log_levels level) {
  if (enabled_level == level) return;
  const config_lock guard(logger_mutex);
  enabled_level = level;
}

void log_config::enable_module(uint32_t modules) {
  const config_lock guard(logger_mutex);
  enabled_modules |= modules;
}

void log_config::disable_module(uint32_t modules) {
  const config_lock guard(logger_mutex);
  enabled_modules &= ~modules;
}

void log_config::set_enabled_modules(uint32_t modules) {
  const config_lock guard(logger_mutex);
  enabled_modules = modules;
}

bool log_config::log_enabled(log_levels level, zelta_log_module module) {
  return level <= enabled_level && (enabled_modules & module) != 0;
}

namespace {

const char* level_name(log_levels level) {
  static const char* const kNames[] = {"none", "fatal", "error", "warn", "notice", "info", "debug"};
  return level <= DEBUG_LOG ? kNames[level] : "debug";
}

const char* module_name(zelta_log_module module) {
  switch (module) {
    case ZELTA_LOG_MODULE_MEDIA_FILE:
      return "media_file";
    case ZELTA_LOG_MODULE_RECORDING_ENGINE:
      return "recording_engine";
    case ZELTA_LOG_MODULE_RTMP_RENDER:
      return "rtmp_render";
    case ZELTA_LOG_MODULE_IPC:
      return "ipc";
    case ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER:
      return "core_service";
    case ZELTA_LOG_MODULE_COMMON:
      return "common";
    case ZELTA_LOG_MODULE_ANY:
      break;
  }
  return "any";
}

std::string format_text(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  std::string text(256, '\0');
  const int wanted = std::vsnprintf(text.data(), text.size(), format, arguments);
  if (wanted >= static_cast<int>(text.size())) {
    text.resize(static_cast<size_t>(wanted) + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
  }
  va_end(again);
  text.resize(wanted < 0 ? 0 : static_cast<size_t>(wanted));
  return text;
}

void make_and_write_line(const char* dir, log_levels level, zelta_log_module module,
                         const char* format, va_list arguments) {
  std::string message = format_text(format, arguments);
  // One line stays one line whatever a peer or a file name put into it.
  for (char& c : message) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  const std::string line = utc_iso_text(utc_ms()) + " " + level_name(level) + " " +
                           module_name(module) + " " + message + "\n";
  const bool may_drop = level > ERROR_LOG && log_config::drop_cancel == 0;
  bool written = false;
  if (dir != nullptr && *dir != '\0') written = log_file_write(dir, line, may_drop);
  // An error that its folder can't take is still seen.
  if (dir == nullptr || *dir == '\0' || (!written && level <= ERROR_LOG)) {
    // Standard error is the last resort: there is nowhere to say that it failed.
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  }
  syslog(log_config::convert_to_syslog_level(level) | static_cast<int>(log_config::facility), "%s",
         message.c_str());
}

// A line is never worth what it is about: without memory for it, it is lost.
void write_line(const char* dir, log_levels level, zelta_log_module module, const char* format,
                va_list arguments) noexcept {
  if (!log_config::log_enabled(level, module)) return;
  try {
    make_and_write_line(dir, level, module, format, arguments);
  } catch (const std::exception&) {
    constexpr char kLost[] = "a log line was lost for want of memory\n";
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, kLost, sizeof kLost - 1);
  }
}

}  // namespace

void log(log_levels level, zelta_log_module module, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(nullptr, level, module, format, arguments);
  va_end(arguments);
}

void log_dir(const char* dir, log_levels level, zelta_log_module module, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(dir, level, module, format, arguments);
  va_end(arguments);
}

}  // namespace zelta::base
