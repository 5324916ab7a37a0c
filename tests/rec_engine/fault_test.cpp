// SPDX-License-Identifier: Apache-2.0
// Every system call of a recording fails once, in turn, with what it may fail with. A program of
// its own, because it stands between the engine and the C library: the calls below are the ones
// that the engine, which is linked in statically, makes.
// The C library would otherwise make some of the calls inline.
#undef _FORTIFY_SOURCE

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "support/link_fixture.h"

namespace {

enum class call {
  kNone,
  kWrite,
  kWritev,
  kRead,
  kReadv,
  kPoll,
  kPipe2,
  kSpawn,
  kMkdir,
  kOpen,
  kNew
};

std::atomic<call> armed{call::kNone};
std::atomic<int> errno_given{0};
// Calls until the one that fails; below 0 when it has failed.
std::atomic<int> left{0};

// Allocations fail on the thread of the call alone: what the engine's own thread does meanwhile is
// another matter.
thread_local bool calling = false;

bool fails(call which) {
  if (armed != which || left.fetch_sub(1) != 0) return false;
  errno = errno_given;
  return true;
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// NOLINTBEGIN: these have the C library's names and shapes
extern "C" {

ssize_t write(int fd, const void* bytes, size_t size) {
  static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
  return fails(call::kWrite) ? -1 : real(fd, bytes, size);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  static const auto real = next<ssize_t (*)(int, const iovec*, int)>("writev");
  return fails(call::kWritev) ? -1 : real(fd, parts, count);
}

ssize_t read(int fd, void* to, size_t size) {
  static const auto real = next<ssize_t (*)(int, void*, size_t)>("read");
  return fails(call::kRead) ? -1 : real(fd, to, size);
}

ssize_t readv(int fd, const iovec* parts, int count) {
  static const auto real = next<ssize_t (*)(int, const iovec*, int)>("readv");
  return fails(call::kReadv) ? -1 : real(fd, parts, count);
}

int poll(pollfd* fds, nfds_t count, int timeout_ms) {
  static const auto real = next<int (*)(pollfd*, nfds_t, int)>("poll");
  return fails(call::kPoll) ? -1 : real(fds, count, timeout_ms);
}

int pipe2(int* ends, int flags) noexcept {
  static const auto real = next<int (*)(int*, int)>("pipe2");
  return fails(call::kPipe2) ? -1 : real(ends, flags);
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* argv, char* const* environment) {
  static const auto real = next<decltype(&posix_spawn)>("posix_spawn");
  if (fails(call::kSpawn)) return errno_given;
  return real(pid, path, actions, attributes, argv, environment);
}

int mkdir(const char* path, mode_t mode) noexcept {
  static const auto real = next<int (*)(const char*, mode_t)>("mkdir");
  if (!fails(call::kMkdir)) return real(path, mode);
  // Somebody else has been faster.
  if (errno_given == EEXIST) real(path, mode);
  errno = errno_given;
  return -1;
}

int open(const char* path, int flags, ...) {
  static const auto real = next<int (*)(const char*, int, ...)>("open");
  va_list rest;
  va_start(rest, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : mode_t{0};
  va_end(rest);
  return fails(call::kOpen) ? -1 : real(path, flags, mode);
}

}  // extern "C"

[[gnu::noinline]] void* operator new(size_t bytes) {
  void* const memory = calling && fails(call::kNew) ? nullptr : std::malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
// NOLINTEND

namespace zelta::test {
namespace {

struct fault {
  call which;
  const char* name;
  std::vector<int> errnos;
};

const fault kFaults[] = {
    {call::kWrite, "write", {EINTR, EAGAIN, ENOSPC, EIO, EPIPE}},
    {call::kWritev, "writev", {EINTR, EAGAIN, EIO, EPIPE}},
    {call::kRead, "read", {EINTR, EAGAIN, EIO}},
    {call::kReadv, "readv", {EINTR, EAGAIN, EIO, ENOMEM}},
    {call::kPoll, "poll", {EINTR, ENOMEM}},
    {call::kPipe2, "pipe2", {EMFILE, ENFILE, ENOMEM}},
    {call::kSpawn, "posix_spawn", {EAGAIN, ENOMEM, EMFILE, ENOENT, EACCES}},
    {call::kMkdir, "mkdir", {ENOSPC, EIO, EACCES, EMFILE}},
    {call::kOpen, "open", {EMFILE, ENFILE, ENOMEM, ENOSPC, EIO, EINTR}},
};

class FaultTest : public LinkTest {
 protected:
  // One recording, from join to release; what the application saw of it.
  struct outcome {
    int joined = 0;
    std::vector<std::string> calls;
    std::string log;
    bool told() const {
      for (const std::string& one : calls) {
        if (one.rfind("error", 0) == 0 || one.rfind("warning", 0) == 0) return true;
      }
      return joined != 0;
    }
    bool whole() const {
      size_t frames = 0;
      for (const std::string& one : calls) frames += one.rfind("pcm", 0) == 0 ? 1 : 0;
      return joined == 0 && frames >= 3;
    }
  };

  outcome record() {
    handler.clear();
    outcome seen;
    seen.joined = join("hello join user:5 pcm:3 await:1 leave:16");
    if (seen.joined == 0) ended_or_told();
    if (engine) {
      seen.log = log();
      engine.reset();
    }
    armed = call::kNone;
    seen.calls = handler.calls();
    return seen;
  }

  // Until all of the recorder's frames are there, or an error that ends the recording.
  void ended_or_told() { EXPECT_TRUE(handler.wait_for_any({{"pcm", 3}, {"error", 1}})); }

  // Arms one fault; false when a recording has fewer such calls.
  bool hit(const fault& one, int number, int error, outcome& seen) {
    errno_given = error;
    left = number;
    armed = one.which;
    seen = record();
    return left < 0;
  }

  void check_clean(const std::string& what, int descriptors) {
    EXPECT_FALSE(has_children()) << what;
    EXPECT_LE(open_descriptors(), descriptors) << what;
  }

  // The long run takes every error of every call; the short one an error a call, in turn, and every
  // seventh allocation.
  const bool all = std::getenv("ZELTA_ALL_FAULTS") != nullptr;
};

// Faults that a recording must get over without a trace, and those that end it: either the
// application gets all frames, or it is told; nothing leaks, and the next recording works.
TEST_F(FaultTest, EachSystemCallMayFailOnce) {
  ASSERT_TRUE(record().whole());
  const int descriptors = open_descriptors();
  for (const fault& one : kFaults) {
    int cases = 0;
    int told = 0;
    size_t turn = 0;
    for (int number = 0; number < 60; ++number) {
      bool reached = false;
      const size_t errors = all ? one.errnos.size() : 1;
      for (size_t i = 0; i < errors; ++i) {
        const int error = one.errnos[all ? i : turn++ % one.errnos.size()];
        outcome seen;
        if (!hit(one, number, error, seen)) break;
        reached = true;
        ++cases;
        told += seen.told() ? 1 : 0;
        const std::string what = std::string(one.name) + " number " + std::to_string(number) +
                                 ": " + std::strerror(error);
        EXPECT_TRUE(seen.whole() || seen.told()) << what;
        if (!seen.whole() && one.which != call::kOpen) {
          EXPECT_NE(seen.log.find(std::strerror(error)), std::string::npos)
              << what << " is not in the log:\n"
              << seen.log;
        }
        check_clean(what, descriptors);
      }
      if (!reached) break;
    }
    EXPECT_GT(cases, 0) << one.name;
    EXPECT_TRUE(record().whole()) << "the recording after " << one.name;
    std::printf("[ faults  ] %-12s %3d cases, %3d told, the others got over\n", one.name, cases,
                told);
  }
}

// No exception crosses the public interface: each allocation of the call fails once.
TEST_F(FaultTest, JoinGetsOverEveryAllocationThatFails) {
  ASSERT_TRUE(record().whole());
  const int descriptors = open_descriptors();
  int cases = 0;
  for (int number = 0; number < 3000; number += all ? 1 : 7) {
    handler.clear();
    setenv("FAKE_RECORDER", "join await:1", 1);
    engine.reset(IRecordingEngine::createZeltaRecordingEngine("app", &handler));
    ASSERT_NE(engine, nullptr);
    callable = engine.get();
    left = number;
    armed = call::kNew;
    calling = true;
    const int joined = engine->joinChannel("key", "room", 1, config);
    calling = false;
    armed = call::kNone;
    const bool reached = left < 0;
    EXPECT_TRUE(joined == 0 || (reached && joined == -1)) << number;
    engine.reset();
    check_clean("allocation " + std::to_string(number), descriptors);
    if (!reached) break;
    ++cases;
  }
  EXPECT_GT(cases, 20);
  EXPECT_LT(cases, 3000);
  std::printf("[ faults  ] new          %3d cases in joinChannel\n", cases);
  EXPECT_TRUE(record().whole());
}

TEST_F(FaultTest, FolderThatAnotherEngineMakesInTheSameMomentIsShared) {
  const std::string settings =
      dir.file("c.json", "{\"Recording_Dir\":\"" + dir.path() + "shared\"}");
  config.cfgFilePath = const_cast<char*>(settings.c_str());
  outcome seen;
  EXPECT_TRUE(hit({call::kMkdir, "mkdir", {}}, 0, EEXIST, seen));
  EXPECT_TRUE(seen.whole());
}

TEST_F(FaultTest, FactoryReturnsNullWithoutMemory) {
  int cases = 0;
  for (int number = 0; number < 1000; ++number) {
    left = number;
    armed = call::kNew;
    calling = true;
    IRecordingEngine* const made = IRecordingEngine::createZeltaRecordingEngine("app", &handler);
    calling = false;
    armed = call::kNone;
    if (made != nullptr) made->release();
    if (left >= 0) {
      EXPECT_NE(made, nullptr);
      break;
    }
    ++cases;
  }
  EXPECT_GT(cases, 1);
}

}  // namespace
}  // namespace zelta::test
