// SPDX-License-Identifier: Apache-2.0
// A folder of one test's own, and reading what was logged there.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace zelta::test {

class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& in = std::filesystem::temp_directory_path()) {
    std::string pattern = (in / "zelta-test.XXXXXX").string();
    path_ = mkdtemp(pattern.data());
    path_ += "/";
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  // With a slash at its end.
  const std::string& path() const { return path_; }
  std::string file(const std::string& name, const std::string& text) const {
    std::ofstream(path_ + name) << text;
    return path_ + name;
  }

 private:
  std::string path_;
};

inline std::string read_file(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The words of a text, of which '' is the empty one.
inline std::vector<std::string> words_of(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word == "''" ? "" : word);
  return words;
}

// The messages of the log in `dir`: what stands behind "time level module (pid) path:line: ".
inline std::vector<std::string> logged(const std::string& dir) {
  std::vector<std::string> messages;
  for (const std::string& line : lines_of(read_file(dir + "recording_engine.log"))) {
    const size_t pid = line.find(") ");
    const size_t number = line.find(':', pid == std::string::npos ? 0 : pid);
    const size_t message = line.find(": ", number == std::string::npos ? 0 : number + 1);
    messages.push_back(message == std::string::npos ? line : line.substr(message + 2));
  }
  return messages;
}

inline int open_descriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

}  // namespace zelta::test
