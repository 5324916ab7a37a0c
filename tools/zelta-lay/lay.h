// SPDX-License-Identifier: Apache-2.0
// What zelta-lay does.
#pragma once

#include "options.h"

namespace zelta::lay {

// The exit status; all there is to say is said. Throws nothing.
int lay(const options& o);

}  // namespace zelta::lay
