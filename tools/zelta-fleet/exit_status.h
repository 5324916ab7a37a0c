// SPDX-License-Identifier: Apache-2.0
// How zelta-fleet ends.
#pragma once

namespace zelta::fleet {

enum exit_status : int {
  kDone = 0,      // what was asked for
  kFailed = 1,    // it couldn't be: standard error says why
  kBadUsage = 2,  // the command line can't be used; nothing was touched
};

// Says it on standard error.
exit_status fail(const char* what);

}  // namespace zelta::fleet
