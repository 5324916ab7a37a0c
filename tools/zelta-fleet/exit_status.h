// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zelta::fleet {

enum exit_status : int { kDone = 0, kFailed = 1, kBadUsage = 2 };

// Says it on standard error.
exit_status fail(const char* what);

}  // namespace zelta::fleet
