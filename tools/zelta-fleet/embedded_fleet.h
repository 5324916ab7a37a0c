// SPDX-License-Identifier: Apache-2.0
// A fleet on this machine, for a first try: a NATS server and a worker, until a signal ends both.
#pragma once

#include "exit_status.h"
#include "options.h"

namespace zelta::fleet {

exit_status run_embedded_fleet(const options& of);

}  // namespace zelta::fleet
