// SPDX-License-Identifier: Apache-2.0
// What zelta-fleet asks of a fleet that is there.
#pragma once

#include "exit_status.h"
#include "options.h"

namespace zelta::fleet {

exit_status run_command(const options& of);

}  // namespace zelta::fleet
