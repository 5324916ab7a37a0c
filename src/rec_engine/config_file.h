// SPDX-License-Identifier: Apache-2.0
// Reading one key of the optional JSON configuration file.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::recording {

enum class lookup_status {
  kFound,
  kCannotOpen,
  kCannotParse,
  kNoKey,  // absent or null, or the top level is no object
};

struct text_lookup {
  lookup_status status;
  std::string value;  // empty for a value that is no JSON string
};

// Reads the file anew each time: it is small, and a join asks a handful of times. Never throws.
text_lookup look_up_text(const char* path, const char* key);

// 0 for anything but a whole number from 0 to 4294967295 that is written without quotes.
uint32_t look_up_uint(const char* path, const char* key);

}  // namespace zelta::recording
