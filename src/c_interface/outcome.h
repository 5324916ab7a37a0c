// SPDX-License-Identifier: Apache-2.0
// What a call of the C interface comes to.
#pragma once

#include <string>

#include "zelta_recording.h"

namespace zelta::c_interface {

struct [[nodiscard]] outcome {
  int code = ZELTA_OK;
  // Of a failure: which value was wrong and what would be right. May be empty.
  std::string detail;

  bool failed() const { return code < 0; }
};

// A number that stands for no value of its kind.
inline outcome out_of_range(const char* name, long long value, long long least, long long most) {
  return {ZELTA_ERROR_ARGUMENT, std::string(name) + " is " + std::to_string(value) +
                                    ", it should be " + std::to_string(least) + " to " +
                                    std::to_string(most)};
}

inline outcome is_null(const char* name) {
  return {ZELTA_ERROR_ARGUMENT, std::string(name) + " is null"};
}

}  // namespace zelta::c_interface
