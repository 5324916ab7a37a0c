// SPDX-License-Identifier: Apache-2.0
// Counts the allocations of the program that it is linked into.
#pragma once

#include <cstddef>

namespace zelta::test {

// Calls of operator new so far, in all threads.
size_t allocations();

}  // namespace zelta::test
