// SPDX-License-Identifier: Apache-2.0
// A file of lines of JSON that grows as things happen. A recorder that is killed has written whole
// lines, and its successor goes on behind them.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "base/scoped_timer.h"
#include "core_service/files/file_writer.h"

namespace Json {
class Value;
}

namespace zelta::core_service::files {

class line_log {
 public:
  // `path`: the file, which is made with the first line. `failed` gets the errno of what could not
  // be written, with which the lines that waited are lost; the next one is tried again. Loop and
  // writer are borrowed.
  line_log(std::string path, base::event_loop& loop, file_writer& disk,
           std::function<void(int error)> failed);

  // False: the disk is so far behind that there is no room for it.
  [[nodiscard]] bool add(const Json::Value& line);
  bool is_open() const { return to_ != nullptr; }
  // Of one that is open: `done` follows once all is written, or can't be. Nothing is added any
  // more.
  void close(std::function<void()> done);

 private:
  void open();
  void closed();

  const std::string path_;
  base::event_loop& loop_;
  file_writer& disk_;
  const std::function<void(int)> failed_;
  std::unique_ptr<output> to_;
  std::function<void()> done_;
  base::scoped_timer limit_;
};

}  // namespace zelta::core_service::files
