// SPDX-License-Identifier: Apache-2.0
// Tells how far the film is: on standard error in words, or on standard output as JSON. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zelta::lay {

class reporter {
 public:
  explicit reporter(bool json);

  // Of a length of sound to hear or film to lay; told once a second on a terminal, every ten
  // elsewhere.
  void progress(const char* doing, int64_t done_us, int64_t all_us);
  void note(const std::string& text);
  void missing(const std::string& text);
  // The last: the status and why, or what was made.
  void end(int status, const std::string& text);

 private:
  using clock = std::chrono::steady_clock;
  void say(const std::string& event, const std::string& text, int status);

  bool json_;
  bool terminal_;
  bool on_line_ = false;
  std::string doing_;
  clock::time_point start_ = clock::now();
  clock::time_point told_ = start_;
};

}  // namespace zelta::lay
