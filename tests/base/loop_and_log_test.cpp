// SPDX-License-Identifier: Apache-2.0
// The event loop, the log and the clocks.
#include <atomic>
#include <csignal>
#include <cstring>
#include <locale>
#include <memory>
#include <regex>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>

#include "base/clocks.h"
#include "base/event_loop.h"
#include "base/log_file.h"
#include "base/logger.h"
#include "base/poster.h"
#include "base/safe_log.h"
#include "base/scoped_timer.h"
#include "support/pipe.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using namespace base;

// ---- The loop ------------------------------------------------------------------------------

void stop_loop(int, void* loop) {
  static_cast<event_loop*>(loop)->stop();
}

struct Ticker {
  event_loop loop;
  std::vector<int64_t> at;
  int wanted = 0;
  timer_event* handle = nullptr;
  bool removes_itself = false;
  int64_t slow_ms = 0;

  static void tick(int, void* self) {
    auto& t = *static_cast<Ticker*>(self);
    t.at.push_back(tick_ms());
    // One callback that takes its time, without anything to wait for.
    while (t.at.size() == 1 && tick_ms() - t.at[0] < t.slow_ms) {
    }
    if (t.removes_itself) t.loop.remove_timer(t.handle);
    if (static_cast<int>(t.at.size()) == t.wanted) t.loop.stop();
  }
};

TEST(EventLoop, LateTickDoesNotDelayTheNextNorComeInABurst) {
  Ticker t;
  t.wanted = 4;
  t.slow_ms = 250;
  const int64_t start = tick_ms();
  t.handle = t.loop.add_timer(100, &Ticker::tick, &t);
  EXPECT_EQ(t.loop.run(false), 0);
  // Due at 100 (which ends at 350), 200 and 300 are missed, so one at once, then 400 and 500.
  EXPECT_GE(t.at[1] - start, 350);
  EXPECT_GE(t.at[2] - start, 400);
  EXPECT_LT(t.at[2] - start, 480);
  EXPECT_GE(t.at[3] - start, 500);
  EXPECT_LT(t.at[3] - start, 580);
}

TEST(EventLoop, TimerMayRemoveItselfAndOthers) {
  Ticker first;
  Ticker other;
  first.removes_itself = true;
  first.handle = first.loop.add_timer(10, &Ticker::tick, &first);
  auto* const removed = first.loop.add_timer(20, &Ticker::tick, &other);
  EXPECT_EQ(first.loop.remove_timer(removed), 0);
  EXPECT_EQ(first.loop.remove_timer(removed), -1);
  first.loop.add_timer(50, stop_loop, &first.loop);
  first.loop.run(false);
  EXPECT_EQ(first.at.size(), 1U);
  EXPECT_TRUE(other.at.empty());
}

TEST(EventLoop, StopsFromAnotherThreadAndRunsAgain) {
  event_loop loop;
  for (int round = 0; round < 3; ++round) {
    std::thread stopper;
    loop.post([&] {
      EXPECT_TRUE(loop.in_loop_thread());
      stopper = std::thread([&loop] {
        loop.stop();
        loop.stop();
      });
    });
    EXPECT_EQ(loop.run(false), 0);
    stopper.join();
    EXPECT_FALSE(loop.running());
  }
}

struct Watched {
  event_loop& loop;
  int other;
  std::vector<std::string> seen;
};

TEST(EventLoop, RemovedWatcherIsNotCalledEvenWhenItWasDue) {
  event_loop loop;
  const unique_fd a(eventfd(1, EFD_CLOEXEC));
  const unique_fd b(eventfd(1, EFD_CLOEXEC));
  // Whichever comes first removes both; only one call may be made.
  const auto remove_all = [](int fd, void* c) {
    auto& w = *static_cast<Watched*>(c);
    w.seen.push_back(std::to_string(fd));
    w.loop.remove_watcher(w.other);
    w.loop.remove_watcher(fd);
    w.other = fd;
  };
  Watched context_a{loop, b.get(), {}};
  Watched context_b{loop, a.get(), {}};
  EXPECT_EQ(loop.add_watcher(a.get(), &context_a, remove_all, nullptr, nullptr), 0);
  EXPECT_EQ(loop.add_watcher(a.get(), &context_a, remove_all, nullptr, nullptr), -1);
  EXPECT_EQ(loop.add_watcher(b.get(), &context_b, remove_all, nullptr, nullptr), 0);
  loop.run(true);
  EXPECT_EQ(context_a.seen.size() + context_b.seen.size(), 1U);
  EXPECT_EQ(loop.remove_watcher(a.get()), -1);
}

TEST(EventLoop, HangUpComesAfterEverythingThatWasSent) {
  event_loop loop;
  Pipe pipe;
  ASSERT_TRUE(pipe.put("abc"));
  pipe.write.reset();
  Watched context{loop, 0, {}};
  loop.add_watcher(
      pipe.read.get(), &context,
      [](int fd, void* c) {
        char byte = 0;
        EXPECT_EQ(read(fd, &byte, 1), 1);
        static_cast<Watched*>(c)->seen.emplace_back(1, byte);
      },
      nullptr,
      [](int fd, void* c, int events) {
        auto& w = *static_cast<Watched*>(c);
        w.seen.push_back("events " + std::to_string(events));
        w.loop.remove_watcher(fd);
        w.loop.stop();
      });
  loop.run(false);
  EXPECT_EQ(context.seen, (std::vector<std::string>{"a", "b", "c", "events 16"}));
}

TEST(EventLoop, WritingIsWatchedOnlyWhileWanted) {
  event_loop loop;
  const unique_fd fd(eventfd(0, EFD_CLOEXEC));
  Watched context{loop, 0, {}};
  loop.add_watcher(
      fd.get(), &context, nullptr,
      [](int writable, void* c) {
        auto& w = *static_cast<Watched*>(c);
        w.seen.emplace_back("writable");
        w.loop.want_write(writable, false);
        w.loop.post([&w] { w.loop.stop(); });
      },
      nullptr);
  loop.post([] {});
  loop.run(true);
  EXPECT_TRUE(context.seen.empty());
  std::thread asker([&] { loop.want_write(fd.get(), true); });
  loop.run(false);
  asker.join();
  EXPECT_EQ(context.seen.size(), 1U);
}

TEST(EventLoop, WhatAnOwnerWantedEndsWithIt) {
  event_loop loop;
  std::string done;
  poster owner(loop);
  scoped_timer stopped(loop, 1, [&] { done += "stopped "; });
  scoped_timer timer;
  timer = {loop, 20, [&] {
             done += "timer";
             timer = {};
             loop.stop();
           }};
  owner.post([&] {
    done += "posted ";
    stopped.stop();
    owner.post([&] { done += "too late "; });
    owner.forget();
  });
  loop.run(false);
  EXPECT_EQ(done, "posted timer");
}

// ---- The log -------------------------------------------------------------------------------

class LogTest : public ::testing::Test {
 protected:
  LogTest() {
    log_config::set_log_level(NOTICE_LOG);
    log_config::enable_all_modules();
  }
  std::string text() const { return read_file(dir.path() + "recording_engine.log"); }
  void say(log_levels level, const std::string& message,
           zelta_log_module module = ZELTA_LOG_MODULE_IPC) const {
    log_dir(dir.path().c_str(), level, module, "%s", message.c_str());
  }
  TempDir dir;
};

struct GroupedDigits : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(LogTest, LineHasTimeLevelModuleAndMessage) {
  say(ERROR_LOG, "two\nlines");
  const std::locale before =
      std::locale::global(std::locale(std::locale(), std::make_unique<GroupedDigits>().release()));
  const char* const folder = dir.path().c_str();
  safe_log(folder, "src/x.cpp", 7, WARN_LOG, ZELTA_LOG_MODULE_RECORDING_ENGINE).stream()
      << "100%s " << 4294967295U;
  safe_log(folder, "f", 1, WARN_LOG, ZELTA_LOG_MODULE_ANY).stream();
  std::locale::global(before);
  logger(folder, ZELTA_LOG_MODULE_IPC).with("a").with("b").notice("c");
  const auto lines = lines_of(text());
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0].substr(23), "Z error ipc two lines");
  EXPECT_EQ(lines[0][10], 'T');
  const std::string pid = "(" + std::to_string(getpid()) + ") ";
  EXPECT_EQ(lines[1].substr(25), "warn recording_engine " + pid + "src/x.cpp:7: 100%s 4294967295");
  EXPECT_EQ(lines[2].substr(25), "warn any " + pid + "f:1: ");
  EXPECT_EQ(lines[3].substr(25), "notice ipc a: b: c");
}

TEST_F(LogTest, LevelAndModuleFilter) {
  say(INFO_LOG, "too verbose");
  log_config::disable_module(ZELTA_LOG_MODULE_IPC);
  say(ERROR_LOG, "module is off");
  say(ERROR_LOG, "seen", ZELTA_LOG_MODULE_COMMON);
  EXPECT_EQ(lines_of(text()).size(), 1U);
  log_config::disable_all_modules();
  log_config::enable_module(ZELTA_LOG_MODULE_IPC);
  EXPECT_TRUE(log_config::log_enabled(NOTICE_LOG, ZELTA_LOG_MODULE_IPC));
  EXPECT_FALSE(log_config::log_enabled(NOTICE_LOG, ZELTA_LOG_MODULE_COMMON));
  EXPECT_FALSE(log_config::log_enabled(INFO_LOG, ZELTA_LOG_MODULE_IPC));
  const int expected[] = {LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};
  for (uint32_t level = 1; level <= 6; ++level) {
    EXPECT_EQ(log_config::convert_to_syslog_level(static_cast<log_levels>(level)),
              expected[level - 1]);
  }
}

TEST_F(LogTest, NullStringAndLongLinesAreWritten) {
  // Volatile, so that the compiler can't see what it would rightly warn of.
  const char* volatile nothing = nullptr;
  log_dir(dir.path().c_str(), ERROR_LOG, ZELTA_LOG_MODULE_IPC, "[%s]", nothing);
  const std::string longer(5000, 'x');
  say(ERROR_LOG, longer);
  const auto lines = lines_of(text());
  EXPECT_NE(lines[0].find("[(null)]"), std::string::npos);
  EXPECT_NE(lines[1].find(longer), std::string::npos);
}

TEST_F(LogTest, ErrorThatItsFolderCannotTakeIsSeenOnStandardError) {
  ::testing::internal::CaptureStderr();
  log_dir("/nonexistent/", ERROR_LOG, ZELTA_LOG_MODULE_IPC, "fatal news");
  log_dir("/nonexistent/", WARN_LOG, ZELTA_LOG_MODULE_IPC, "small talk");
  log_dir("", WARN_LOG, ZELTA_LOG_MODULE_IPC, "no folder yet");
  safe_log("x.cpp", 7, ERROR_LOG, ZELTA_LOG_MODULE_IPC).stream() << "nowhere";
  const std::string seen = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(seen.find("fatal news"), std::string::npos);
  EXPECT_EQ(seen.find("small talk"), std::string::npos);
  EXPECT_NE(seen.find("no folder yet"), std::string::npos);
  EXPECT_NE(seen.find("error ipc (" + std::to_string(getpid()) + ") x.cpp:7: nowhere"),
            std::string::npos);
}

// A loop that watches more than its process may have fails as one does for which there is no
// memory.
TEST_F(LogTest, PollThatFailsIsAnErrorAndTriedAgain) {
  event_loop loop;
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit none{0, usual.rlim_max};
  ::testing::internal::CaptureStderr();
  setrlimit(RLIMIT_NOFILE, &none);
  loop.post([&loop] { loop.post([&loop] { loop.stop(); }); });
  loop.run(false);
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(::testing::internal::GetCapturedStderr().substr(24, 50),
            " error common poll: Invalid argument; trying again");
}

TEST_F(LogTest, RotatesKeepingFour) {
  log_config::set_drop_cannel(1);
  const std::string megabyte(1 << 20, 'x');
  for (int i = 0; i < 16 * 6; ++i) say(NOTICE_LOG, megabyte);
  log_config::set_drop_cannel(0);
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    ++files;
    EXPECT_LE(entry.file_size(), 16U << 20);
  }
  EXPECT_EQ(files, 5);
}

TEST_F(LogTest, FileThatSomebodyRenamedIsLeftBehind) {
  const std::string path = dir.path() + "recording_engine.log";
  say(NOTICE_LOG, "before");
  std::filesystem::rename(path, path + ".old");
  const int64_t limit = tick_ms() + 10'000;
  event_loop loop;
  while (!std::filesystem::exists(path) && tick_ms() < limit) {
    loop.add_timer(50, stop_loop, &loop);
    loop.run(false);
    say(NOTICE_LOG, "after");
  }
  EXPECT_NE(text().find("after"), std::string::npos);
}

TEST_F(LogTest, FloodIsDroppedCountedAndErrorsAreKept) {
  const int64_t begun = tick_ms();
  for (int i = 0; i < 1500; ++i) say(WARN_LOG, "again");
  say(ERROR_LOG, "important");
  const auto lines = lines_of(text());
  // A thousand a second, and the two that are never dropped.
  const bool in_a_second = tick_ms() - begun < 1000;
  EXPECT_GE(lines.size(), 1002U);
  EXPECT_LE(lines.size(), in_a_second ? 1002U : 1500U);
  EXPECT_NE(lines.back().find("important"), std::string::npos);
  EXPECT_NE(lines[lines.size() - 2].find("log lines were lost here"), std::string::npos);
  for (int i = 0; i < 1500; ++i) say(WARN_LOG, "again");
  log_file_close(dir.path());
  EXPECT_NE(lines_of(text()).back().find("log lines were lost here"), std::string::npos);
}

// Lines that a full disk doesn't take are counted, once there is room again, and what it took half
// of spoils no other.
TEST_F(LogTest, FullDiskLosesLinesAndSaysHowMany) {
  if (mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "no right to mount a small disk here";
  }
  say(NOTICE_LOG, "before");
  dir.file("filler", std::string(1 << 20, 'x'));
  const std::string line(700, 'y');
  for (int i = 0; i < 20; ++i) say(NOTICE_LOG, line);
  std::filesystem::remove(dir.path() + "filler");
  say(NOTICE_LOG, "after");
  const auto lines = lines_of(text());
  EXPECT_NE(lines.front().find("before"), std::string::npos);
  EXPECT_NE(lines.back().find("after"), std::string::npos);
  EXPECT_NE(lines[lines.size() - 2].find("log lines were lost here"), std::string::npos);
  int halves = 0;
  for (const std::string& one : lines) {
    const bool half = one.find("yy") != std::string::npos && one.find(line) == std::string::npos;
    halves += half ? 1 : 0;
    EXPECT_TRUE(!half || one.back() == 'y') << "something else on the line: " << one;
  }
  EXPECT_LE(halves, 1);
  log_file_close(dir.path());
  EXPECT_EQ(umount2(dir.path().c_str(), MNT_DETACH), 0);
}

// ---- The clocks ----------------------------------------------------------------------------

TEST(Clocks, FolderTimeFitsItsBuffer) {
  char buffer[20];
  Time2UTCStrWithSlash_ns(buffer, sizeof buffer);
  EXPECT_TRUE(std::regex_match(buffer, std::regex("\\d{6}_\\d{9}/"))) << buffer;
  char small[4];
  Time2UTCStrWithSlash_ns(small, sizeof small);
  EXPECT_EQ(std::strlen(small), 3U);
}

TEST(Clocks, TextsOfAMoment) {
  EXPECT_EQ(utc_iso_text(1769903999123), "2026-01-31T23:59:59.123Z");
  EXPECT_EQ(utc_compact_text(1769903999007), "20260131T235959007");
}

}  // namespace
}  // namespace zelta::test
