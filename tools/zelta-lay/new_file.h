// SPDX-License-Identifier: Apache-2.0
// A file that gets its name once it is whole and on the disk. One thread.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace zelta::lay {

class new_file {
 public:
  // Made beside `path`, as `path`.PROCESS.part, which no other has. With `overwrite` finish()
  // replaces what stands at `path`. Throws std::runtime_error, as all of this class does, with what
  // failed.
  new_file(std::string path, bool overwrite);
  // Removes what isn't finished.
  ~new_file();
  new_file(const new_file&) = delete;
  new_file& operator=(const new_file&) = delete;

  // Where to write until then.
  const std::string& part() const { return part_; }
  void write(const std::string& text);
  // What was written by others through part() has to be out of their hands.
  void finish();

 private:
  [[noreturn]] void fail(const std::string& what) const;
  void take_name() const;

  std::string path_;
  bool overwrite_;
  std::string part_;
  base::unique_fd file_;
  bool finished_ = false;
};

}  // namespace zelta::lay
