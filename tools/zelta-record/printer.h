// SPDX-License-Identifier: Apache-2.0
// Standard output: events, and on a terminal a line that is redrawn in place.
#pragma once

#include <chrono>
#include <initializer_list>
#include <mutex>
#include <string>

#include <json/json.h>

namespace zelta::record {

struct field {
  const char* name;
  Json::Value value;
};

// Any thread.
class printer {
 public:
  // `json`: one object a line.
  explicit printer(bool json);

  bool is_json() const { return json_; }
  bool is_terminal() const { return terminal_; }
  double elapsed_s() const;
  // "   3.20 s  user joined  uid 1", or the same as JSON.
  void event(const char* name, std::initializer_list<field> fields);
  // On a terminal alone.
  void redraw(const std::string& line);

 private:
  const bool json_;
  const bool terminal_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex mutex_;
  bool progress_on_line_ = false;
};

// One line on standard error, behind what was printed before.
void complain(const std::string& text);

}  // namespace zelta::record
