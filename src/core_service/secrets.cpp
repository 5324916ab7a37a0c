// SPDX-License-Identifier: Apache-2.0
#include "core_service/secrets.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include <sys/prctl.h>

namespace zelta::core_service {
namespace {

constexpr const char* kSecretOptions[] = {"--channel_key", "--encrypt_secret"};

bool is_secret(const char* option, size_t length) {
  return std::any_of(std::begin(kSecretOptions), std::end(kSecretOptions), [=](const char* name) {
    return std::strlen(name) == length && std::strncmp(name, option, length) == 0;
  });
}

// The compiler must not think that nobody reads it.
void wipe(char* text) {
  explicit_bzero(text, std::strlen(text));
}

}  // namespace

void wipe_secret_arguments(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    char* const equals = std::strchr(argv[i], '=');
    if (equals != nullptr && is_secret(argv[i], static_cast<size_t>(equals - argv[i]))) {
      wipe(equals + 1);
    } else if (i + 1 < argc && is_secret(argv[i], std::strlen(argv[i]))) {
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
