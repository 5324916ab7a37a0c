// SPDX-License-Identifier: Apache-2.0
// What the machine has left of memory and threads.
//
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelta::core_service::load {

// Of the machine, or below the control group's limit, whichever is less; UINT64_MAX: unknown.
uint64_t free_bytes();

// More than a pipeline of a user's media takes.
constexpr size_t kGraphThreads = 16;

// Empty when `count` more threads can be had, by trying: limits of the user, of the control group
// and of the machine differ in how they count.
std::string shortage_of_threads(size_t count);

// Of the text of /proc/meminfo; UINT64_MAX: it doesn't say.
uint64_t parse_available_bytes(const std::string& meminfo);
// Of the text of /proc/self/cgroup: the folder below /sys/fs/cgroup that limits memory, with its
// slash; empty: none.
std::string parse_memory_group(const std::string& cgroups);

}  // namespace zelta::core_service::load
