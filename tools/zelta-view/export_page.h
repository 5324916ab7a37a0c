// SPDX-License-Identifier: Apache-2.0
// Writes the page beside its files. Any thread; blocks while volumes are measured.
#pragma once

#include "options.h"

namespace zelta::view {

// index.html in the folder, replaced as a whole; one that isn't ours stays as it is, which is an
// error. Returns the exit status.
int export_page(const options& o);

}  // namespace zelta::view
