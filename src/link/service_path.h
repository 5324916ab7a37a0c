// SPDX-License-Identifier: Apache-2.0
// Where the recorder's program is.
#pragma once

#include <string>
#include <vector>

namespace zelta::link {

// The paths to try for `program`, in order. One with a directory stands for itself. A bare name is
// looked for in the folder named by the environment variable ZELTA_SERVICE_DIR, beside the engine
// library (for a static one: the executable), in the installed libexec folder, then along PATH.
std::vector<std::string> service_candidates(const std::string& program);

// The first candidate that is an executable file; empty when there is none. `candidates` are not
// changed.
std::string find_service(const std::vector<std::string>& candidates);

}  // namespace zelta::link
