// SPDX-License-Identifier: Apache-2.0
// What zelta-view does. Main thread.
#pragma once

#include "options.h"

namespace zelta::view {

// Serves until a signal comes. The page's address is printed as soon as it can be opened. Returns
// the exit status.
int serve(const options& o);

}  // namespace zelta::view
