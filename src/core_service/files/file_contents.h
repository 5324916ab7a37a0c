// SPDX-License-Identifier: Apache-2.0
// What a file is, and what it holds.
#pragma once

namespace zelta::core_service::files {

enum class container { kMp4, kM4a, kWebm };

struct file_contents {
  container kind;
  bool video;
  bool sound;
};

}  // namespace zelta::core_service::files
