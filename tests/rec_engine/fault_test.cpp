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

// Which fails, none when null.
std::atomic<const char*> armed{nullptr};
std::atomic<int> errno_given{0};
// Calls until the one that fails; below 0 when it has failed.
std::atomic<int> left{0};

// Allocations fail on the thread of the call alone: what the engine's own thread does meanwhile is
// another matter.
thread_local bool calling = false;

bool fails(const char* name) {
  const char* const chosen = armed;
  if (chosen == nullptr || std::strcmp(chosen, name) != 0) return false;
  if (left.fetch_sub(1) != 0) return false;
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

#define STAND_IN(result, name, parameters, arguments)           \
  result name parameters {                                      \
    static const auto real = next<result(*) parameters>(#name); \
    return fails(#name) ? -1 : real arguments;                  \
  }
STAND_IN(ssize_t, write, (int fd, const void* from, size_t size), (fd, from, size))
STAND_IN(ssize_t, writev, (int fd, const iovec* parts, int count), (fd, parts, count))
STAND_IN(ssize_t, read, (int fd, void* to, size_t size), (fd, to, size))
STAND_IN(ssize_t, readv, (int fd, const iovec* parts, int count), (fd, parts, count))
STAND_IN(int, poll, (pollfd * fds, nfds_t count, int ms), (fds, count, ms))
#undef STAND_IN

int pipe2(int* ends, int flags) noexcept {
  static const auto real = next<int (*)(int*, int)>("pipe2");
  return fails("pipe2") ? -1 : real(ends, flags);
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* argv, char* const* environment) {
  static const auto real = next<decltype(&posix_spawn)>("posix_spawn");
  if (fails("posix_spawn")) return errno_given;
  return real(pid, path, actions, attributes, argv, environment);
}

int mkdir(const char* path, mode_t mode) noexcept {
  static const auto real = next<int (*)(const char*, mode_t)>("mkdir");
  if (!fails("mkdir")) return real(path, mode);
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
  return fails("open") ? -1 : real(path, flags, mode);
}

}  // extern "C"

[[gnu::noinline]] void* operator new(size_t bytes) {
  void* const memory = calling && fails("new") ? nullptr : std::malloc(bytes);
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
  const char* name;
  std::vector<int> errnos;
};

const fault kFaults[] = {
    {"write", {EINTR, EAGAIN, ENOSPC, EIO, EPIPE}},
    {"writev", {EINTR, EAGAIN, EIO, EPIPE}},
    {"read", {EINTR, EAGAIN, EIO}},
    {"readv", {EINTR, EAGAIN, EIO, ENOMEM}},
    {"poll", {EINTR, ENOMEM}},
    {"pipe2", {EMFILE, ENFILE, ENOMEM}},
    {"posix_spawn", {EAGAIN, ENOMEM, EMFILE, ENOENT, EACCES}},
    {"mkdir", {ENOSPC, EIO, EACCES, EMFILE}},
    {"open", {EMFILE, ENFILE, ENOMEM, ENOSPC, EIO, EINTR}},
};

class FaultTest : public LinkTest {
 protected:
  // One recording, from join to release; what the application saw of it.
  struct outcome {
    int joined = 0;
    std::string log;
    int errors = 0;
    int frames = 0;
    bool told() const { return joined != 0 || errors > 0; }
    bool whole() const { return joined == 0 && frames >= 3; }
  };

  outcome record() {
    outcome seen;
    seen.joined = join("hello join user:5 pcm:3 await:1 leave:16");
    // Until all of the recorder's frames are there, or an error that ends the recording.
    EXPECT_TRUE(seen.joined != 0 || handler.wait_for_any({{"pcm", 3}, {"error", 1}}));
    seen.log = log();
    engine.reset();
    armed = nullptr;
    seen.errors = handler.count("error") + handler.count("warning");
    seen.frames = handler.count("pcm");
    return seen;
  }

  // Arms one fault; false when a recording has fewer such calls.
  bool hit(const fault& one, int number, int error, outcome& seen) {
    errno_given = error;
    left = number;
    armed = one.name;
    seen = record();
    return left < 0;
  }

  // Runs with that one of its allocations failing; false when it makes fewer.
  template <class Call>
  static bool without_memory(int number, Call run) {
    left = number;
    armed = "new";
    calling = true;
    run();
    calling = false;
    armed = nullptr;
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
        if (!seen.whole() && std::strcmp(one.name, "open") != 0) {
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
    setenv("FAKE_RECORDER", "join await:1", 1);
    engine.reset(IRecordingEngine::createZeltaRecordingEngine("app", &handler));
    ASSERT_NE(engine, nullptr);
    callable = engine.get();
    int joined = 0;
    const bool reached =
        without_memory(number, [&] { joined = engine->joinChannel("key", "room", 1, config); });
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
  EXPECT_TRUE(hit({"mkdir", {}}, 0, EEXIST, seen));
  EXPECT_TRUE(seen.whole());
}

TEST_F(FaultTest, FactoryReturnsNullWithoutMemory) {
  int cases = 0;
  for (int number = 0; number < 1000; ++number) {
    IRecordingEngine* made = nullptr;
    const bool failed = without_memory(
        number, [&] { made = IRecordingEngine::createZeltaRecordingEngine("app", &handler); });
    if (made != nullptr) made->release();
    if (!failed) {
      EXPECT_NE(made, nullptr);
      break;
    }
    ++cases;
  }
  EXPECT_GT(cases, 1);
}

}  // namespace
}  // namespace zelta::test
