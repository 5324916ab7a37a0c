// SPDX-License-Identifier: Apache-2.0
// Keeps keys where they belong.
#pragma once

#include <vector>

namespace zelta::core_service {

// Overwrites the values of these options in the process's own arguments, which everybody on the
// machine may read. Before any thread.
void wipe_arguments(int argc, char** argv, const std::vector<const char*>& options);

// No privilege is gained from here on, and no core dump of this process is written: it holds keys.
void renounce_privileges();

}  // namespace zelta::core_service
