// SPDX-License-Identifier: Apache-2.0
// How loud users were, for whoever shows a recording or cuts it to those who speak: a line for each
// second in which somebody was heard.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core_service/files/line_log.h"
#include "core_service/media/media_time.h"

namespace zelta::core_service::files {

class volume_log : private line_log {
 public:
  static constexpr int kStepMs = 200;
  static constexpr size_t kStepsOfLine = 5;

  // As line_log has it.
  volume_log(std::string path, std::string channel_id, base::event_loop& loop, file_writer& disk,
             std::function<void(int error)> failed);

  // The step that ends at `end`, behind the one before: of each user a volume of 1 to 255; who
  // isn't among them was silent. False: as line_log::add.
  [[nodiscard]] bool add(media::media_time end, const std::map<uint32_t, uint32_t>& volumes);
  // A part of a line, before an interruption or the end.
  [[nodiscard]] bool flush();
  using line_log::close;
  using line_log::is_open;

 private:
  const std::string channel_id_;
  int64_t began_utc_ms_ = 0;
  size_t steps_ = 0;
  std::map<uint32_t, std::vector<uint32_t>> line_;
};

}  // namespace zelta::core_service::files
