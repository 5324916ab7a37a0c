// SPDX-License-Identifier: Apache-2.0
// Where keys come from, and how they are kept out of sight.
#pragma once

#include <optional>
#include <string>

namespace zelta::record {

struct secret_source {
  const char* option;       // "--secret"; "-file" behind it names a file
  const char* environment;  // the variable
};
constexpr secret_source kChannelKeySource{"--channel-key", "ZELTA_CHANNEL_KEY"};
constexpr secret_source kSecretSource{"--secret", "ZELTA_SECRET"};

// The first line of the file; none, with `error`, when there is no such thing.
std::optional<std::string> secret_of_file(const std::string& path, std::string& error);
// The variable's value, which is wiped from the process's environment: the recorder would inherit
// it, and /proc shows it. Before any thread.
std::string take_secret_variable(const char* name);

}  // namespace zelta::record
