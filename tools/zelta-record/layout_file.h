// SPDX-License-Identifier: Apache-2.0
// Where users stand on the mixed picture, from a JSON file. docs/zelta-record.md has its schema.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "IZeltaRecordingEngine.h"

namespace zelta::record {

class layout_file {
 public:
  // None, with `error` naming what can't be used and what could, for a file that is no layout.
  static std::optional<layout_file> read(const std::string& path, std::string& error);

  // Points into this object.
  recording::VideoMixingLayout layout() const;

 private:
  std::string background_;
  std::vector<recording::VideoMixingLayout::Region> regions_;
  std::string app_data_;
};

}  // namespace zelta::record
