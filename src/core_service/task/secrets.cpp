// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/secrets.h"

#include <algorithm>
#include <cstring>

#include <sys/prctl.h>

namespace zelta::core_service {
namespace {

bool is_among(std::initializer_list<const char*> options, const char* text, size_t length) {
  return std::any_of(options.begin(), options.end(), [=](const char* name) {
    return std::strlen(name) == length && std::strncmp(name, text, length) == 0;
  });
}

// The compiler must not think that nobody reads it.
void wipe(char* text) {
  explicit_bzero(text, std::strlen(text));
}

}  // namespace

void wipe_arguments(int argc, char** argv, std::initializer_list<const char*> options) {
  for (int i = 1; i < argc; ++i) {
    char* const equals = std::strchr(argv[i], '=');
    if (equals != nullptr && is_among(options, argv[i], static_cast<size_t>(equals - argv[i]))) {
      wipe(equals + 1);
    } else if (i + 1 < argc && is_among(options, argv[i], std::strlen(argv[i]))) {
      wipe(argv[++i]);
    }
  }
}

void renounce_privileges() {
  // Neither can fail with these arguments on a kernel that has them, and without them there is
  // nothing to renounce.
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace zelta::core_service
