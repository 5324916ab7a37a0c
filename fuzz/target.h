// SPDX-License-Identifier: Apache-2.0
// What every fuzz target has: libFuzzer's entry, and seeds that our own encoders make.
//
// A target is built twice: with libFuzzer (preset fuzz, scripts/fuzz.sh), and with replay.cpp into
// the tests, where the seeds and their truncations and flipped bytes run in every build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/packets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace zelta::fuzz {

// Inputs that are right, one of each kind.
std::vector<std::string> seeds();

inline std::string text_of(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

using test::bytes_of;
using test::bytes_with;

// A parser that went wrong quietly.
[[noreturn]] void found(const char* what);
inline void require(bool holds, const char* what) {
  if (!holds) found(what);
}

// Whether a packet of the stream claims to be longer than a mebibyte and no longer than is allowed:
// waiting for it costs an execution a thousand times what others do. The tests of the reader have
// such claims.
bool claims_much(const uint8_t* stream, size_t size);

// A layout with so many regions and some data.
std::vector<uint8_t> layout_of(int regions);

// A folder of this process in memory, removed at the end.
const std::string& scratch_folder();
void write_scratch(const std::string& path, const uint8_t* data, size_t size);

}  // namespace zelta::fuzz
