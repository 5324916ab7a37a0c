// SPDX-License-Identifier: Apache-2.0
// A thread that iterates a context of GLib's, which the recorder's loop is not: libsoup lives on
// one.
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "core_service/channel/glib.h"

namespace zelta::core_service {

class glib_thread {
 public:
  // Throws std::system_error when there is no thread to be had.
  glib_thread();
  glib_thread(const glib_thread&) = delete;
  glib_thread& operator=(const glib_thread&) = delete;
  ~glib_thread();

  // Any thread: `work` is done on this one, in the order of posting. What is posted behind end() is
  // dropped.
  void post(std::function<void()> work);
  // By the owner, once: does `last` behind all that was posted, and waits for it. Nothing is done
  // from then on.
  void end(std::function<void()> last);

  GMainContext* context() const { return context_.get(); }
  // On the thread: others' work is done until `done` holds, for so long at most.
  void iterate_until(const std::function<bool()>& done, unsigned limit_ms);

 private:
  void run_next();

  const context_ptr context_;
  // GLib's own locks aren't seen by those who look for races.
  std::mutex lock_;
  std::deque<std::function<void()>> posted_;
  bool over_ = false;  // of the thread
  std::thread thread_;
};

}  // namespace zelta::core_service
