// SPDX-License-Identifier: Apache-2.0
// Whose media a recorder that crashed had in hand, for the one that takes over.
//
// What strangers send goes through parsers and decoders of others, and any of them may crash. Each
// thread of GStreamer's that serves one user is marked with the uid; a handler of the fatal signals
// writes the mark of its thread into a file and lets the signal end the process as it would have.
// A process that is killed (SIGKILL, out of memory, a signal from outside) leaves no note.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelta::core_service {

enum class crash_stage {
  kUnknown,    // a thread that serves nobody or all: the mix, a library's own
  kReceiving,  // what parses, and decodes sound: without it nothing is left of the user
  kDecoding,   // pictures, beside what is recorded as it came
};

struct crash_suspect {
  // Of kUnknown the user whose pictures began to be decoded last, if that was only just; else 0.
  uint32_t uid = 0;
  crash_stage stage = crash_stage::kUnknown;
};

// From now on; the note goes to `path`. Handlers that there are, as a sanitizer's, still run.
void watch_crashes(const std::string& path);

// The calling thread works for this user from now on, or for nobody.
void mark_thread(uint32_t uid, crash_stage stage);
void unmark_thread();

// While it lives, what goes wrong on this thread is this user's.
class blamed_thread {
 public:
  blamed_thread(uint32_t uid, crash_stage stage) { mark_thread(uid, stage); }
  blamed_thread(const blamed_thread&) = delete;
  blamed_thread& operator=(const blamed_thread&) = delete;
  ~blamed_thread() { unmark_thread(); }
};

// None for what no handler wrote.
std::optional<crash_suspect> parse_crash_note(const std::string& text);
// What the predecessor left at `path`, which is removed.
std::optional<crash_suspect> take_crash_note(const std::string& path);

}  // namespace zelta::core_service
