// SPDX-License-Identifier: Apache-2.0
// Files on disk as a delivery needs them: read whole, replaced whole, hashed, told apart. Any
// thread. Nothing throws but for want of memory; errors are texts with the failing call.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace zelta::deliver {

// Which state of a file it is.
struct stamp {
  uint64_t bytes = 0;
  int64_t mtime_ns = 0;
  bool operator==(const stamp& other) const {
    return bytes == other.bytes && mtime_ns == other.mtime_ns;
  }
};

// Empty when it isn't there, or no plain file, or, with `error`, can't be looked at. A symbolic
// link is none: it leads out of the folder.
std::optional<stamp> stamp_of(const std::string& path, std::string& error);
std::optional<stamp> stamp_of(int fd);

// For reading; links aren't followed. Invalid, with errno, when it can't be opened.
base::unique_fd open_plain(const std::string& path);

// Calls `take` with each piece until it answers false. False with `error` when reading fails.
bool read_all(int fd, const std::function<bool(const char*, size_t)>& take, std::string& error);
// All that is at most `most` bytes; what has more is an error, too.
std::optional<std::string> read_text(const std::string& path, size_t most, std::string& error);
bool write_all(int fd, const char* bytes, size_t size, std::string& error);

// The file at `path` is the old one or the new one, whatever dies meanwhile. What stands at
// PATH.new goes.
bool replace_file(const std::string& path, const std::string& text, std::string& error);
bool sync_folder(const std::string& path, std::string& error);
bool sync_folder(int folder, std::string& error);

// Changes when something comes into a folder, goes, or is renamed, and when it is another folder.
struct folder_mark {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t mtime_ns = 0;
  bool operator==(const folder_mark& other) const {
    return device == other.device && inode == other.inode && mtime_ns == other.mtime_ns;
  }
};
folder_mark mark_of(const std::string& folder);  // all 0: it isn't there

std::string folder_of(const std::string& path);  // "." when the path has none
int64_t now_utc_ms();
// For what one process waits for: nobody sets it.
int64_t steady_ms();

}  // namespace zelta::deliver
