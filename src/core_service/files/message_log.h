// SPDX-License-Identifier: Apache-2.0
// What users write, beside what they say: a line of JSON a message, in the order of coming. A
// recorder that is killed has written whole lines, and its successor goes on behind them.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "base/scoped_timer.h"
#include "core_service/files/file_writer.h"
#include "core_service/media/user_text.h"

namespace zelta::core_service::files {

class message_log {
 public:
  // `path`: the file, which is made with the first message. `failed` gets the errno of what could
  // not be written, with which the messages that waited are lost; the next one is tried again. Loop
  // and writer are borrowed.
  message_log(std::string path, std::string channel_id, base::event_loop& loop, file_writer& disk,
              std::function<void(int error)> failed);

  // False: the disk is so far behind that there is no room for it.
  [[nodiscard]] bool add(uint32_t uid, const media::user_text& what);
  bool is_open() const { return to_ != nullptr; }
  // Of one that is open: `done` follows once all is written, or can't be. Nothing is added any
  // more.
  void close(std::function<void()> done);

 private:
  void open();
  void closed();

  const std::string path_;
  const std::string channel_id_;
  base::event_loop& loop_;
  file_writer& disk_;
  const std::function<void(int)> failed_;
  std::unique_ptr<output> to_;
  std::function<void()> done_;
  base::scoped_timer limit_;
};

}  // namespace zelta::core_service::files
