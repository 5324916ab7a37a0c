// SPDX-License-Identifier: Apache-2.0
#include "link/service_path.h"

#include <cstdlib>
#include <sstream>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelta::link {
namespace {

std::string in_folder(std::string folder, const std::string& program) {
  if (folder.empty()) folder = ".";
  if (folder.back() != '/') folder += '/';
  return folder + program;
}

// Folder of the library or executable that holds this very code.
std::string own_folder() {
  Dl_info found{};
  static const char kHere = 0;
  if (dladdr(&kHere, &found) == 0 || found.dli_fname == nullptr) return "";
  const std::string path = found.dli_fname;
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

const char* environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::vector<std::string> service_candidates(const std::string& program) {
  if (program.find('/') != std::string::npos) return {program};
  std::vector<std::string> candidates;
  const std::string named = environment("ZELTA_SERVICE_DIR");
  if (!named.empty()) candidates.push_back(in_folder(named, program));
  const std::string own = own_folder();
  if (!own.empty()) {
    candidates.push_back(in_folder(own, program));
    // Relative to the library, so that an installed tree can be moved.
    candidates.push_back(in_folder(own + "/" ZELTA_LIBEXEC_FROM_LIB, program));
  }
  std::istringstream path(environment("PATH"));
  for (std::string folder; std::getline(path, folder, ':');) {
    candidates.push_back(in_folder(folder, program));
  }
  return candidates;
}

std::string find_service(const std::vector<std::string>& candidates) {
  for (const std::string& candidate : candidates) {
    struct stat status {};
    if (stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return "";
}

}  // namespace zelta::link
