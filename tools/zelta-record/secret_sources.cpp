// SPDX-License-Identifier: Apache-2.0
#include "secret_sources.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace zelta::record {
namespace {

constexpr size_t kLongest = 4096;

}  // namespace

std::optional<std::string> secret_of_file(const std::string& path, std::string& error) {
  std::ifstream file(path);
  std::string secret;
  if (!file) {
    error = path + " can't be read: " + std::strerror(errno);
  } else if (!std::getline(file, secret) || secret.empty()) {
    error = path + " should hold the secret in its first line, which is empty";
  } else if (secret.size() > kLongest) {
    error = path + " should hold the secret in its first line, which is longer than " +
            std::to_string(kLongest) + " bytes";
  } else {
    if (secret.back() == '\r') secret.pop_back();
    return secret;
  }
  return std::nullopt;
}

std::string take_secret_variable(const char* name) {
  char* const value = std::getenv(name);
  if (value == nullptr) return "";
  std::string secret = value;
  explicit_bzero(value, secret.size());
  unsetenv(name);
  return secret;
}

}  // namespace zelta::record
