// SPDX-License-Identifier: Apache-2.0
// What can be known to be wrong before anything is started.
#pragma once

#include <string>

#include "options.h"

namespace zelta::record {

// Options that contradict each other or lack one another; empty when none do. The engine refuses
// most of them too, in a log.
std::string contradiction(const options& o);
// What is missing or can't be used on this machine: folders, files, a server; empty when all is
// there. Makes the folder of --frames, and finds out which folder the configuration file names.
std::string obstacle(options& o);

}  // namespace zelta::record
