// SPDX-License-Identifier: Apache-2.0
// A zelta-record of this worker: a process, so that one recording's crash is nobody else's.
//
// The loop's thread. Its standard input is its leash: it leaves by itself when that ends, or isn't
// renewed in time, whatever becomes of this process.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <sys/types.h>

#include "base/event_loop.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"

namespace zelta::fleet {

class recorder_child {
 public:
  struct told {
    // An object of its standard output.
    std::function<void(const Json::Value&)> event;
    // A line of its standard error.
    std::function<void(const std::string&)> line;
    // It is gone, all of its output was told: an exit status, or 128 and a signal. May destroy
    // this.
    std::function<void(int status)> ended;
  };

  // `argv[0]` is a path; `environment` is all that it gets ("NAME=value"). Null, with `error`.
  static std::unique_ptr<recorder_child> start(base::event_loop& loop,
                                               const std::vector<std::string>& argv,
                                               const std::vector<std::string>& environment, told to,
                                               std::string& error);
  recorder_child(const recorder_child&) = delete;
  recorder_child& operator=(const recorder_child&) = delete;
  // Kills what still runs.
  ~recorder_child();

  // A line of its standard input. False: it doesn't read any more.
  bool command(const std::string& line);
  // It leaves, and completes its files.
  void let_go() { in_.reset(); }
  void send_signal(int number) const;
  void kill_now() const;
  pid_t pid() const { return pid_; }

 private:
  class lines {
   public:
    enum class got { kSome, kNothing, kEnd };
    // Whole ones.
    got take(int from, const std::function<void(std::string)>& say);
    void rest(const std::function<void(std::string)>& say);

   private:
    std::string rest_;
  };
  recorder_child(pid_t pid, told to) : pid_(pid), told_(std::move(to)) {}

  void read_out();
  void read_err();
  void on_gone();
  void say_event(const std::string& line) const;

  const pid_t pid_;
  const told told_;
  base::unique_fd in_;
  base::unique_fd out_;
  base::unique_fd err_;
  base::unique_fd pidfd_;
  lines out_lines_;
  lines err_lines_;
  base::scoped_watch out_watch_;
  base::scoped_watch err_watch_;
  base::scoped_watch end_watch_;
  bool reaped_ = false;
};

}  // namespace zelta::fleet
