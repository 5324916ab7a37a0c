// SPDX-License-Identifier: Apache-2.0
// What zelta-deliver ends with; also in its --help and in docs/delivery.md.
#pragma once

namespace zelta::deliver {

enum exit_status {
  kDelivered = 0,    // everything there is, or --watch ended in order
  kBroken = 1,       // a folder can't be read, or its state can't be kept
  kUsage = 2,        // options or settings are wrong; nothing was touched
  kUnfinished = 3,   // stopped, out of patience, the recording runs on, or another process has it
  kDeadLetters = 4,  // something is a dead letter
};

constexpr const char* kStatusHelp =
    "Exit status: 0 all delivered, 1 a folder can't be read or its state not be kept, 2 bad usage "
    "or settings, 3 something is still to be delivered, 4 there are dead letters.";

}  // namespace zelta::deliver
