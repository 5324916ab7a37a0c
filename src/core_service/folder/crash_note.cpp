// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/crash_note.h"

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace zelta::core_service {
namespace {

// SIGTRAP is how GLib ends after an error of its own under a debugger's eyes.
constexpr std::array<int, 6> kFatal{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP};
// A crash so soon after a user's first picture is more likely theirs than that of those before.
constexpr int64_t kRecentSeconds = 10;
// An overflow leaves no room for the handler on the thread's own stack.
constexpr size_t kStackBytes = 64 << 10;

// All that the handler reads: nothing in it allocates, locks or is made at its first use.
std::array<char, 4096> note_path{};
std::array<struct sigaction, kFatal.size()> former{};
std::atomic_flag written = ATOMIC_FLAG_INIT;
std::atomic<uint32_t> recent_uid{0};
std::atomic<int64_t> recent_seconds{0};
thread_local uint32_t marked_uid = 0;
thread_local crash_stage marked_stage = crash_stage::kUnknown;

int64_t seconds_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

class handler_stack {
 public:
  handler_stack() {
    stack_t present{};
    if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return;
    // Not filled with zeros: pages that are never touched cost nothing.
    memory_.reset(new char[kStackBytes]);
    stack_t mine{};
    mine.ss_sp = memory_.get();
    mine.ss_size = kStackBytes;
    sigaltstack(&mine, nullptr);
  }
  ~handler_stack() {
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    if (memory_) sigaltstack(&none, nullptr);
  }
  handler_stack(const handler_stack&) = delete;
  handler_stack& operator=(const handler_stack&) = delete;

 private:
  std::unique_ptr<char[]> memory_;  // NOLINT(modernize-avoid-c-arrays): untouched
};

// "UID STAGE\n", without the library's formatting, which may lock.
void write_note() {
  uint32_t uid = marked_uid;
  if (uid == 0 && seconds_now() - recent_seconds < kRecentSeconds) uid = recent_uid;
  std::array<char, 16> text{};
  char* at = text.data() + text.size();
  *--at = '\n';
  *--at = static_cast<char>('0' + static_cast<int>(marked_stage));
  *--at = ' ';
  do {
    *--at = static_cast<char>('0' + uid % 10);
    uid /= 10;
  } while (uid != 0);
  const int file = open(note_path.data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) return;
  // A note that can't be written is one that isn't there.
  const ssize_t put = write(file, at, static_cast<size_t>(text.data() + text.size() - at));
  static_cast<void>(put);
  close(file);
}

void on_fatal(int signal, siginfo_t* info, void* /*context*/) {
  // Another process's kill() tells nothing of what was being decoded.
  const bool from_outside = info->si_code == SI_USER && info->si_pid != getpid();
  if (!from_outside && !written.test_and_set()) write_note();
  for (size_t i = 0; i < kFatal.size(); ++i) {
    if (kFatal[i] == signal) sigaction(signal, &former[i], nullptr);
  }
  // What the processor found it finds again after the return; what was sent is sent again.
  if (info->si_code <= 0) raise(signal);
}

}  // namespace

void watch_crashes(const std::string& path) {
  if (path.size() >= note_path.size()) return;
  const bool first = note_path[0] == '\0';
  path.copy(note_path.data(), path.size());
  note_path[path.size()] = '\0';
  if (!first) return;
  struct sigaction ours {};
  ours.sa_sigaction = on_fatal;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&ours.sa_mask);
  for (size_t i = 0; i < kFatal.size(); ++i) sigaction(kFatal[i], &ours, &former[i]);
}

void mark_thread(uint32_t uid, crash_stage stage) {
  thread_local const handler_stack stack;
  marked_uid = uid;
  marked_stage = stage;
  if (stage != crash_stage::kDecoding) return;
  recent_seconds = seconds_now();
  recent_uid = uid;
}

void unmark_thread() {
  marked_uid = 0;
  marked_stage = crash_stage::kUnknown;
}

std::optional<crash_suspect> parse_crash_note(const std::string& text) {
  std::istringstream fields(text);
  int64_t uid = -1;
  int stage = -1;
  if (!(fields >> uid >> stage) || uid < 0 || uid > UINT32_MAX || stage < 0 ||
      stage > static_cast<int>(crash_stage::kDecoding)) {
    return std::nullopt;
  }
  return crash_suspect{static_cast<uint32_t>(uid), static_cast<crash_stage>(stage)};
}

std::optional<crash_suspect> take_crash_note(const std::string& path) {
  std::ifstream file(path);
  std::string text;
  std::getline(file, text);
  unlink(path.c_str());
  return parse_crash_note(text);
}

}  // namespace zelta::core_service
