// SPDX-License-Identifier: Apache-2.0
#include "chunk_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "json_file.h"

namespace zelta::record {

chunk_file::chunk_file(const std::string& cfg_file_path, int chunk_s, std::string& error) {
  Json::Value root(Json::objectValue);
  if (!cfg_file_path.empty()) root = read_json_object(cfg_file_path, error);
  if (!root.isObject()) return;
  root["Chunk_Time_Span"] = std::to_string(chunk_s);
  const std::string text = Json::writeString(Json::StreamWriterBuilder(), root);
  std::error_code no_folder;
  path_ = (std::filesystem::temp_directory_path(no_folder) / "zelta-record.XXXXXX").string();
  const base::unique_fd file(mkostemp(path_.data(), O_CLOEXEC));
  if (file.valid() &&
      write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
    return;
  }
  error = "--chunk needs a temporary file: " + path_ + ": " + std::strerror(errno);
  if (file.valid()) unlink(path_.c_str());
  path_.clear();
}

chunk_file::~chunk_file() {
  // Nothing can be done about one that can't be removed, and it holds nothing of worth.
  if (!path_.empty()) unlink(path_.c_str());
}

}  // namespace zelta::record
