// SPDX-License-Identifier: Apache-2.0
// Media files of a recorder that died, known by their names alone.
#pragma once

#include <string>
#include <vector>

#include "core_service/folder/manifest.h"

namespace zelta::core_service {

// Those in `folder` (with its slash) that no process has open, as far as names tell: uid, begin,
// container; and until when it was written, and how much. None when it can't be read.
std::vector<manifest_file> leftover_files(const std::string& folder);

}  // namespace zelta::core_service
