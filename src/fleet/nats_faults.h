// SPDX-License-Identifier: Apache-2.0
// Why NATS, or its library, didn't do what it was asked: in words that say what to change, and
// without anybody's password.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include <nats/nats.h>

#include "fleet/broker_settings.h"

namespace zelta::fleet {

// What a server told lately that this user may not do: that comes beside what was asked, which then
// times out.
class violations {
 public:
  void note(std::string text);
  // Empty: nothing, within the last seconds.
  std::string latest() const;

 private:
  mutable std::mutex lock_;
  std::string text_;
  std::chrono::steady_clock::time_point at_;
};

// Of the library's last call on this thread.
std::string fault_text(const std::string& what, natsStatus status, const violations& denied);
// Empty, or which of its files can't be read. The library says nothing of one that isn't there.
std::string unreadable_file(const broker_settings& of);
// What may be behind it, as servers tell who isn't let in no reason. Empty, or to be appended.
std::string likely_reason(const broker_settings& of, natsStatus status);
// A URL as it may be shown.
std::string without_user(const std::string& url);

}  // namespace zelta::fleet
