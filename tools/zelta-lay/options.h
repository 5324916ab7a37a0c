// SPDX-License-Identifier: Apache-2.0
// The command line of zelta-lay.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/command_line.h"

namespace zelta::lay {

struct options {
  std::string folder;
  std::string output;  // empty: no film
  std::string channel;
  std::string layout = "grid";  // grid, speaker, side-by-side, or a file
  std::string from;
  std::string to;
  std::string edl;
  std::string otio;
  std::optional<uint32_t> track;
  int width = 1280;
  int height = 720;
  int fps = 25;
  bool fps_asked = false;
  bool names = false;
  bool clock = false;
  bool audio_only = false;
  bool force = false;
  bool json = false;
};

using tools::parse_result;

parse_result parse_options(int argc, const char* const* argv, options& o);

}  // namespace zelta::lay
