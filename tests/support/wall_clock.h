// SPDX-License-Identifier: Apache-2.0
// The wall clock of a program that links wall_clock.cpp, as the test sets it: libraries measure
// what they send again by it.
#pragma once

#include <chrono>

namespace zelta::test {

extern std::chrono::microseconds wall_time;

}  // namespace zelta::test
