// SPDX-License-Identifier: Apache-2.0
// Whether folders that are delivered, and those that they are delivered to, keep apart. Any thread.
#pragma once

#include <string>
#include <vector>

#include "options.h"
#include "settings.h"

namespace zelta::deliver {

// Refuses targets that lie in what is delivered, where copies would be found and delivered, too,
// and those at which a recording would be its own copy. Warns on standard error of folders that
// should be another machine's or disk's, and are on that of the recordings, as an unmounted one is.
void check_places(const options& asked, const delivery_settings& settings,
                  std::vector<std::string>& errors);

}  // namespace zelta::deliver
