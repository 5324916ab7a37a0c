// SPDX-License-Identifier: Apache-2.0
// Where to write without losing anything.
#pragma once

#include <set>
#include <string>

#include "options.h"

namespace zelta::lay {

// Empty when all that is asked for can be made where it is, else what stands against it. `recorded`
// are the names of the files that the folder's manifests have: nothing of the recording is ever
// overwritten, and nothing gets a name that a recorder would take for its own.
std::string targets_fault(const options& o, const std::set<std::string>& recorded);

}  // namespace zelta::lay
