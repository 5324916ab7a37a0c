// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/secrets.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <sys/prctl.h>

namespace zelta::core_service {

void wipe_arguments(int argc, char** argv, const std::vector<const char*>& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view name(argv[i], std::strcspn(argv[i], "="));
    if (std::find(options.begin(), options.end(), name) == options.end()) continue;
    char* const end = argv[i] + name.size();
    char* const secret = *end == '=' ? end + 1 : i + 1 < argc ? argv[++i] : end;
    // The compiler must not think that nobody reads it.
    explicit_bzero(secret, std::strlen(secret));
  }
}

void renounce_privileges() {
  // Neither can fail with these arguments on a kernel that has them, and without them there is
  // nothing to renounce.
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace zelta::core_service
