// SPDX-License-Identifier: Apache-2.0
// Where somebody's log lines go, as a value: handed on, and given a prefix of its own.
#pragma once

#include <string>
#include <utility>

#include "base/log.h"

namespace zelta::base {

class logger {
 public:
  // To standard error.
  logger() = default;
  // As log_dir() has them.
  logger(std::string dir, zelta_log_module module) : dir_(std::move(dir)), module_(module) {}

  // The same with "prefix: " before every line, behind that of this one.
  logger with(const std::string& prefix) const {
    logger made = *this;
    made.prefix_ += prefix + ": ";
    return made;
  }

  // Any thread.
  void operator()(log_levels level, const std::string& text) const {
    log_dir(dir_.c_str(), level, module_, "%s%s", prefix_.c_str(), text.c_str());
  }
  void error(const std::string& text) const { (*this)(ERROR_LOG, text); }
  void warn(const std::string& text) const { (*this)(WARN_LOG, text); }
  void notice(const std::string& text) const { (*this)(NOTICE_LOG, text); }

 private:
  std::string dir_;
  zelta_log_module module_ = ZELTA_LOG_MODULE_COMMON;
  std::string prefix_;
};

}  // namespace zelta::base
