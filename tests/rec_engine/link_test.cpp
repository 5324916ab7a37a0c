// SPDX-License-Identifier: Apache-2.0
// The engine with its real router and loop and a real child process.
#include <atomic>
#include <csignal>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/link_fixture.h"

namespace zelta::test {
namespace {

TEST_F(LinkTest, RecorderStartsWithItsArgumentsAndNothingElseOfOurs) {
  // What an application may have: descriptors that are inherited, signals ignored and blocked.
  const int stray = fcntl(STDOUT_FILENO, F_DUPFD, 100);  // none of the numbers that a recorder has
  std::signal(SIGUSR1, SIG_IGN);
  sigset_t usr2;
  sigemptyset(&usr2);
  sigaddset(&usr2, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &usr2, nullptr);
  const std::string facts = dir.path() + "facts";
  ASSERT_TRUE(join("facts:" + facts + " join await:1", "joined room 1"));
  engine.reset();
  const auto lines = lines_of(read_file(facts));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_NE(lines[0].find(" --channel_id room "), std::string::npos);
  EXPECT_NE(lines[0].find(" --read 3 --write 4 "), std::string::npos);
  EXPECT_EQ(lines[1], "0 1 2 3 4 ");
  EXPECT_EQ(lines[2], "clean");
  close(stray);
  std::signal(SIGUSR1, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &usr2, nullptr);
}

// Each recorder has its engine's, the relaunched ones too, and the application's own stays.
TEST_F(LinkTest, ServerOfTheConfigurationFileIsItsEnginesAlone) {
  setenv("ZELTA_CHANNEL_SERVER", "test:", 1);
  for (const std::string& named : {std::string("dir:/a"), std::string("dir:/b"), std::string()}) {
    const std::string file =
        dir.file("c.json", named.empty() ? "{}" : R"({"Channel_Server":")" + named + R"("})");
    config.cfgFilePath = const_cast<char*>(file.c_str());
    ASSERT_TRUE(join("facts:" + dir.path() + "facts join kill", "error 3"));
    EXPECT_EQ(lines_of(read_file(dir.path() + "facts")).back(), named.empty() ? "test:" : named);
    EXPECT_NE(read_file(dir.path() + "facts").find("--recoveryid 3"), std::string::npos);
  }
  EXPECT_STREQ(getenv("ZELTA_CHANNEL_SERVER"), "test:");
  unsetenv("ZELTA_CHANNEL_SERVER");
}

TEST_F(LinkTest, EventsAndFramesArriveInOrderOnOneThreadOfTheEngine) {
  ASSERT_TRUE(join("hello join user:5 pcm:3000 h264:300000 h264:5 drop:5 await:16 user:6 await:1",
                   "user in 6"));
  const auto calls = handler.calls();
  ASSERT_EQ(calls.size(), 3006U);
  EXPECT_EQ(calls[1], "user in 5 /folder/");
  for (int i = 0; i < 3000; ++i) {
    EXPECT_EQ(calls[static_cast<size_t>(i) + 2],
              "pcm 5 " + std::to_string(i) + " 1 16 48000 960 1920 0");
  }
  EXPECT_EQ(calls[3002], "h264 5 0 0 300000 0");
  EXPECT_EQ(calls[3003], "h264 5 0 0 5 0");
  EXPECT_EQ(calls[3004], "user out 5 0");
  engine.reset();
  EXPECT_EQ(handler.threads().size(), 1U);
  EXPECT_EQ(handler.threads().count(std::this_thread::get_id()), 0U);
}

TEST_F(LinkTest, LastPacketsOfADyingRecorderComeBeforeItsError) {
  // Killed before anything was joined, so the break is an error and no recovery.
  ASSERT_TRUE(join("user:5 pcm:200 user:6 kill", "error"));
  const auto calls = handler.calls();
  ASSERT_EQ(calls.size(), 203U);
  EXPECT_EQ(calls[201], "user in 6 /folder/");
  EXPECT_EQ(calls[202], "error 3 16");
}

TEST_F(LinkTest, FourBreaksGiveThreeWarningsThenAnError) {
  ASSERT_TRUE(join("join kill", "error"));
  std::vector<std::string> calls = handler.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "warning 108"), 3);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "joined room 1"), 4);
  EXPECT_EQ(calls.back(), "error 3 16");
  EXPECT_FALSE(has_children());
  EXPECT_EQ(engine->startService(), -1);
}

TEST_F(LinkTest, EachKindOfBreakIsToldOnceWithItsBits) {
  const struct {
    const char* script;
    std::vector<std::string> calls;
  } rows[] = {
      {"exit:5", {"error 3 16"}},
      {"garbage hang", {"error 3 8"}},
      {"close-write hang", {"error 3 16"}},
      {"close-read hang", {"error 3 8"}},
      {"user:1 ignore-term close-write hang", {"user in 1 /folder/", "error 3 16"}},
      {"leave:4 exit:0", {"leave 4", "error 3 16"}},
      {"error exit:3", {"error 1 2", "error 3 16"}},
  };
  for (const auto& row : rows) {
    ASSERT_TRUE(join(row.script, "error 3")) << row.script;
    EXPECT_FALSE(has_children()) << row.script << ": made sure of before it is told";
    engine.reset();
    EXPECT_EQ(handler.calls(), row.calls) << row.script;
    EXPECT_EQ(log_matches(" error ipc the recorder's packets are out of step: bad length"),
              row.script == std::string("garbage hang"));
  }
}

TEST_F(LinkTest, LeaveReachesTheRecorderAndWaitsForIt) {
  const std::string facts = dir.path() + "facts";
  ASSERT_TRUE(join("join await:1 facts:" + facts, "joined"));
  const auto start = Clock::now();
  engine->leaveChannel();
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(700)) << "one tick";
  const auto calls = handler.calls();
  engine.reset();
  EXPECT_TRUE(log_matches(" notice ipc recorder pid \\d+ ended: exit status 0\n"));
  EXPECT_FALSE(read_file(facts).empty()) << "it has finished before release returns";
  EXPECT_EQ(handler.calls(), calls) << "nothing is told after the leave";
}

TEST_F(LinkTest, LeaveFromInsideACallbackEndsTheThread) {
  handler.also = [this](const std::string& call) {
    if (call == "user in 2 /folder/") callable.load()->leaveChannel();
  };
  ASSERT_TRUE(join("join user:2 await:1", "user in 2"));
  engine.reset();
  EXPECT_EQ(handler.calls().size(), 2U);
}

TEST_F(LinkTest, ReleaseRightAfterJoinEndsARecorderThatIsStillStarting) {
  ASSERT_EQ(join("await:1"), 0);
  engine.reset();
  EXPECT_FALSE(has_children());
}

TEST_F(LinkTest, RecorderThatIgnoresEverythingIsEndedByForce) {
  ASSERT_TRUE(join("ignore-term join hang", "joined"));
  const auto start = Clock::now();
  engine.reset();
  const auto took = Clock::now() - start;
  EXPECT_GT(took, std::chrono::seconds(12)) << "its files get their time";
  EXPECT_LT(took, std::chrono::seconds(14));
  EXPECT_TRUE(log_matches(" error ipc recorder pid \\d+ ended: signal 9, after SIGKILL\n"));
}

// For how long this thread has run or wanted to: on a busy machine, most of what a clock shows.
std::chrono::nanoseconds time_on_processor() {
  std::istringstream file(read_file("/proc/thread-self/schedstat"));
  int64_t ran = 0;
  int64_t queued = 0;
  file >> ran >> queued;
  return std::chrono::nanoseconds(ran + queued);
}

TEST_F(LinkTest, StalledRecorderCostsABoundedQueueAndOneLine) {
  ASSERT_TRUE(join("join hang", "joined"));
  const auto start = Clock::now();
  const auto before = time_on_processor();
  for (int i = 0; i < 40; ++i) {
    send_layouts(*engine, 1);
    engine->setUserBackground(7, "small enough to be taken, which ends no episode");
  }
  const auto waited = Clock::now() - start - (time_on_processor() - before);
  EXPECT_LT(waited, std::chrono::seconds(2)) << "sending never blocks";
  const auto lines = lines_of(log());
  const auto refusals = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find(" error ipc the recorder doesn't read and ") != std::string::npos &&
           line.find("refusing packets") != std::string::npos;
  });
  EXPECT_EQ(refusals, 1) << "one line an episode";
}

TEST_F(LinkTest, QueuedCommandsArriveWholeWhenTheRecorderReadsAgain) {
  const std::string facts = dir.path() + "facts";
  const std::string gate = dir.path() + "gate";
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  ASSERT_TRUE(join("join gate:" + gate + " await:24 user:9 await:1 facts:" + facts, "joined"));
  send_layouts(*engine, 12);
  engine->setLogLevel(ZELTA_LOG_LEVEL_NOTICE);
  std::ofstream(gate).close();
  EXPECT_TRUE(handler.wait_for("user in 9"));
  engine.reset();
  EXPECT_FALSE(read_file(facts).empty()) << "the leave has come through behind the rest";
  EXPECT_EQ(handler.count("error"), 0) << "the stream stayed in step";
}

TEST_F(LinkTest, ProgramThatIsNowhereIsNamedWithEveryPlace) {
  setenv("ZELTA_SERVICE_DIR", dir.path().c_str(), 1);
  config.appliteDir = const_cast<char*>("/nonexistent");
  EXPECT_EQ(join(""), -1);
  EXPECT_NE(log().find("no executable file at any of: /nonexistent/ZeltaCoreService"),
            std::string::npos);
  const std::string text = dir.file("ZeltaCoreService", "not a program");
  chmod(text.c_str(), 0755);
  config.appliteDir = const_cast<char*>(dir.path().c_str());
  EXPECT_EQ(join(""), -1);
  EXPECT_NE(log().find("Exec format error"), std::string::npos);
}

// Every command that there is, in turn.
void command_everything(IRecordingEngine& engine) {
  const VideoMixingLayout layout;
  engine.setUserBackground(1, "a.png");
  engine.setVideoMixingLayout(layout);
  engine.startService();
  engine.stopService();
  engine.setLogLevel(ZELTA_LOG_LEVEL_NOTICE);
  engine.getProperties();
}

// Eight threads call everything at once while users come and go, frames arrive and the recorder
// breaks, is launched again and breaks for good.
TEST_F(LinkTest, CommandsFromManyThreadsWhileFramesUsersAndBreaksArrive) {
  ASSERT_EQ(join("join user:5 user:6 pcm:500 drop:6 h264:100000 kill"), 0);
  std::vector<std::thread> threads;
  std::atomic<bool> over{false};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!over) command_everything(*engine);
    });
  }
  EXPECT_TRUE(handler.wait_for("error"));
  std::thread leaver([&] { engine->leaveChannel(); });
  engine->leaveChannel();
  leaver.join();
  over = true;
  for (auto& thread : threads) thread.join();
  engine.reset();
  EXPECT_EQ(handler.count("warning 108"), 3);
  EXPECT_EQ(handler.threads().size(), 1U);
}

// A leave that comes at any moment of a relaunch, from another thread and from the warning itself.
TEST_F(LinkTest, LeaveInTheMiddleOfARelaunchEndsIt) {
  for (const bool inside : {false, true}) {
    handler.also = [&](const std::string& call) {
      if (inside && call == "warning 108") callable.load()->leaveChannel();
    };
    ASSERT_TRUE(join("join user:5 kill", "warning 108"));
    if (!inside) engine->leaveChannel();
    engine.reset();
    handler.also = nullptr;
  }
}

TEST_F(LinkTest, CommandsFromInsideEveryCallback) {
  handler.also = [this](const std::string&) { command_everything(*callable.load()); };
  ASSERT_TRUE(join("hello join user:5 pcm:20 h264:50000 drop:5 leave:4 kill", "leave 4"));
  engine.reset();
  for (const char* const call : {"joined", "user in", "pcm", "h264", "user out", "leave 4"}) {
    EXPECT_GE(handler.count(call), 1) << call;
  }
  EXPECT_EQ(handler.threads().size(), 1U);
}

TEST_F(LinkTest, RoundsLeaveNoDescriptorAndNoChild) {
  ASSERT_EQ(join("join await:1"), 0);
  engine.reset();
  const int before = open_descriptors();
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(join(round % 2 == 0 ? "join await:1" : "join exit:0", "joined"));
    engine.reset();
  }
  EXPECT_LE(open_descriptors(), before);
}

}  // namespace
}  // namespace zelta::test
