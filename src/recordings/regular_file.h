// SPDX-License-Identifier: Apache-2.0
// Opens what stands in a folder that somebody else may have filled: no link is followed, and
// nothing that isn't a regular file can keep the reader waiting.
//
// Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <sys/stat.h>

#include "base/unique_fd.h"

namespace zelta::recordings {

// `folder` may end in a slash, `name` has none. Invalid, with errno, when it can't be opened: ELOOP
// for a link, EINVAL for what is no regular file. `status` is then untouched.
base::unique_fd open_regular(const std::string& folder, const std::string& name,
                             struct stat& status);

struct regular_text {
  std::string text;
  bool is_cut = false;  // there is more
};

// Its first `most` bytes. None, with errno, when it can't be opened or read.
std::optional<regular_text> read_regular(const std::string& folder, const std::string& name,
                                         size_t most);

}  // namespace zelta::recordings
