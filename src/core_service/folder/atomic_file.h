// SPDX-License-Identifier: Apache-2.0
// A file that is replaced as a whole: a reader sees a true one at every moment, and a crash leaves
// the last.
#pragma once

#include <string>

namespace zelta::core_service {

// A file that must outlive a crash of the machine is synced, which takes seconds on a busy disk.
enum class sync { kNo, kYes };

// Writes `text` into PATH.new and renames it over `path`; a link that stands there is removed.
// False, with errno, when that can't be done; `path` is then as it was.
[[nodiscard]] bool replace_file(const std::string& path, const std::string& text, sync how);

}  // namespace zelta::core_service
