// SPDX-License-Identifier: Apache-2.0
// A job that the queue handed out: whoever has it has the job, until its lease ends.
//
// It holds nothing of the NATS library's: a message of the library's is answered through the
// subscription that it came by, and that one goes whenever the queue has to be asked anew.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "fleet/lease.h"

namespace zelta::fleet {

struct assignment {
  std::string text;       // the job
  std::string answer_to;  // the subject that tells the queue what became of it
  std::string label;
  uint64_t sequence = 0;           // in the queue; a job that was put there again has a larger one
  uint64_t delivered = 0;          // how often it was handed out, this time included
  lease::clock::time_point asked;  // for it, before it came
};

// The queue's words, as JetStream knows them.
constexpr const char* kSayDone = "+ACK";
constexpr const char* kSayNever = "+TERM";     // nobody should get it again
constexpr const char* kSayStillAtIt = "+WPI";  // renews its lease
constexpr const char* kSayAgain = "-NAK";
inline std::string say_again_after(std::chrono::milliseconds delay) {
  return "-NAK {\"delay\": " + std::to_string(std::chrono::nanoseconds(delay).count()) + "}";
}

}  // namespace zelta::fleet
