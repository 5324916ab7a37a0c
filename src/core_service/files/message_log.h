// SPDX-License-Identifier: Apache-2.0
// What users write, beside what they say: a line a message, in the order of coming.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core_service/files/line_log.h"
#include "core_service/media/user_text.h"

namespace zelta::core_service::files {

class message_log : private line_log {
 public:
  // As line_log has it.
  message_log(std::string path, std::string channel_id, base::event_loop& loop, file_writer& disk,
              std::function<void(int error)> failed);

  // False: the disk is so far behind that there is no room for it.
  [[nodiscard]] bool add(uint32_t uid, const media::user_text& what);
  using line_log::close;
  using line_log::is_open;

 private:
  const std::string channel_id_;
};

}  // namespace zelta::core_service::files
