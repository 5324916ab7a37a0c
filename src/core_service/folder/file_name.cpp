// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/file_name.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "base/clocks.h"
#include "base/unique_fd.h"

namespace zelta::core_service {

std::string claim_file(const std::string& folder, const std::string& prefix, int64_t utc_ms,
                       const std::string& ending, const std::string& working) {
  for (;; ++utc_ms) {
    std::string name = prefix;
    name.append("_").append(base::utc_compact_text(utc_ms)).append(ending);
    const std::string path = folder + name;
    const std::string made = path + working;
    const base::unique_fd file(open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file.valid() && errno == EEXIST) continue;
    // Looked for only now: whoever had the working name before has renamed it by now.
    if (working.empty() || access(path.c_str(), F_OK) != 0) return name;
    unlink(made.c_str());
  }
}

}  // namespace zelta::core_service
