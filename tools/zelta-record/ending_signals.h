// SPDX-License-Identifier: Apache-2.0
// The signals by which people and supervisors end a tool.
#pragma once

#include <vector>

namespace zelta::record {

// SIGINT, SIGTERM and SIGHUP, without those that are ignored: nohup, and a shell's jobs in the
// background, want it that way.
std::vector<int> ending_signals();

}  // namespace zelta::record
