// SPDX-License-Identifier: Apache-2.0
// --chunk: the engine takes the length of a chunk from a configuration file alone.
#pragma once

#include <string>

namespace zelta::record {

// A private file with the user's configuration and the length in it, for as long as it lives.
class chunk_file {
 public:
  // `cfg_file_path` may be empty. Without a path(), `error` says why.
  chunk_file(const std::string& cfg_file_path, int chunk_s, std::string& error);
  chunk_file(const chunk_file&) = delete;
  chunk_file& operator=(const chunk_file&) = delete;
  ~chunk_file();

  // For RecordingConfig, which takes no constant; empty when there is no file.
  char* path() { return path_.data(); }

 private:
  std::string path_;
};

}  // namespace zelta::record
