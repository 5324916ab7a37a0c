// SPDX-License-Identifier: Apache-2.0
// One recording, from the join to the files.
#pragma once

#include "exit_status.h"
#include "options.h"
#include "signals.h"

namespace zelta::record {

// Main thread.
exit_status record(options& o, signal_watch& signals);

}  // namespace zelta::record
