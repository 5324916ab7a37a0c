// SPDX-License-Identifier: Apache-2.0
// Keeps small files up to date from a thread of its own: a disk that is busy takes seconds for a
// sync, and the loop's thread, which carries all media, must not wait for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace zelta::core_service {

// The functions may be called from any thread.
class state_writer {
 public:
  // `failed`, which may be null, gets the path and errno of each write that failed, on the writer's
  // thread.
  explicit state_writer(std::function<void(const std::string& path, int error)> failed);
  state_writer(const state_writer&) = delete;
  state_writer& operator=(const state_writer&) = delete;
  // Writes what still waits.
  ~state_writer();

  // The file will have this text, or a later one: what has been overtaken is never written.
  void replace(const std::string& path, std::string text);
  // Waits until nothing waits any more. 0; the errno of the latest write that failed since the
  // flush before; or ETIMEDOUT.
  int flush(std::chrono::milliseconds limit);

 private:
  void run();

  const std::function<void(const std::string&, int)> failed_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::map<std::string, std::string> waiting_;
  bool writing_ = false;
  bool over_ = false;
  int error_ = 0;
  std::thread thread_;
};

}  // namespace zelta::core_service
