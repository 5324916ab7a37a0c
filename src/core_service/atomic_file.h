// SPDX-License-Identifier: Apache-2.0
// A file that is replaced as a whole: a reader sees a true one at every moment, and a crash leaves
// the last.
#pragma once

#include <string>

namespace zelta::core_service {

// Writes `text` into a file beside `path`, syncs it and renames it over `path`. False, with errno,
// when that can't be done; `path` is then as it was.
[[nodiscard]] bool replace_file(const std::string& path, const std::string& text);

}  // namespace zelta::core_service
