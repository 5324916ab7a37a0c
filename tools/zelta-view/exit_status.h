// SPDX-License-Identifier: Apache-2.0
// How zelta-view ends.
#pragma once

namespace zelta::view {

enum exit_status : int {
  kDone = 0,         // served until a signal came, or the page is written
  kNoRecording = 1,  // the folder holds no recording that can be read
  kUsage = 2,        // refused before anything was started
  kCantServe =
      3,  // the address can't be listened at, or the page not be written, or GStreamer not be used
};

constexpr const char* kStatusHelp =
    "Exit status: 0 served until SIGINT, SIGTERM or SIGHUP, or exported, 1 no recording in the "
    "folder, 2 bad usage, 3 the address, the page's file or GStreamer can't "
    "be used.";

}  // namespace zelta::view
