// SPDX-License-Identifier: Apache-2.0
// What to do when descriptors run short. A user takes about ten, and most processes are started
// with a limit of 1,024.
#pragma once

#include <cstddef>
#include <string>

namespace zelta::core_service {

// As high as the administrator permits.
void raise_descriptor_limit();

// Empty when there are enough for one more than so many users; else says how many there are.
std::string shortage_beyond(size_t users);

// Whether none can be had at this moment.
bool are_descriptors_used_up();

// Whether a call that failed with this errno may succeed later, with the disk as it is.
bool is_shortage(int error);

}  // namespace zelta::core_service
