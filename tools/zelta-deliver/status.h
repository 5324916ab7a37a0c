// SPDX-License-Identifier: Apache-2.0
// What --status tells: the states of folders, read without their locks, changed by nothing.
#pragma once

#include "options.h"

namespace zelta::deliver {

// An exit status, as if all had been tried once more in vain.
int tell_status(const options& asked);

}  // namespace zelta::deliver
