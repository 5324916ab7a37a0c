// SPDX-License-Identifier: Apache-2.0
// Media files of a recorder that died, known by their names alone.
#pragma once

#include <string>
#include <vector>

#include "core_service/folder/manifest.h"

namespace zelta::core_service {

struct leftover_file {
  // As far as the name tells: uid, begin, container; and until when it was written.
  manifest_file file;
  bool empty = false;
};

// Those in `folder` (with its slash) that no process has open. None when it can't be read.
std::vector<leftover_file> leftover_files(const std::string& folder);

}  // namespace zelta::core_service
