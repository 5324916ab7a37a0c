// SPDX-License-Identifier: Apache-2.0
// A worker's process, whatever becomes of it: what it says, whether it listens, and how it ends.
#include "fleet/recorder_child.h"

#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/event_loop.h"
#include "base/scoped_timer.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using fleet::recorder_child;

class RecorderChild : public testing::Test {
 protected:
  // As the worker has it: a recorder that is gone must not take the worker along.
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }

  bool start(const std::string& script) {
    const std::string path = dir_.file("fake.sh", script);
    return start({"/bin/sh", path}, {"PATH=/usr/bin:/bin"});
  }
  bool start(const std::vector<std::string>& argv, const std::vector<std::string>& environment) {
    child_ = recorder_child::start(loop_, argv, environment,
                                   {[this](const Json::Value& event) {
                                      events_.push_back(event["event"].asString());
                                      check();
                                    },
                                    [this](const std::string& line) {
                                      lines_.push_back(line);
                                      check();
                                    },
                                    [this](int status) {
                                      status_ = status;
                                      child_.reset();
                                      loop_.stop();
                                    }},
                                   error_);
    return child_ != nullptr;
  }
  // Until it has ended; its status, or -1 after 20 s.
  int run() {
    status_ = -1;
    wanted_.clear();
    run_with_limit();
    return status_;
  }
  // Until it has told this event, or ended.
  bool run_until(const std::string& event) {
    wanted_ = event;
    run_with_limit();
    return std::find(events_.begin(), events_.end(), event) != events_.end();
  }
  void run_with_limit() {
    const base::scoped_timer limit(loop_, 20'000, [this] { loop_.stop(); });
    loop_.run(false);
  }
  void check() {
    if (!wanted_.empty() && !events_.empty() && events_.back() == wanted_) loop_.stop();
  }

  const TempDir dir_;
  base::event_loop loop_;
  std::unique_ptr<recorder_child> child_;
  std::string error_;
  std::string wanted_;
  std::vector<std::string> events_;
  std::vector<std::string> lines_;
  int status_ = -1;
};

TEST_F(RecorderChild, IsHeardLineByLineHoweverItWrites) {
  // Each piece is one write of its own, as "printf" is a builtin.
  ASSERT_TRUE(start(R"(
printf '{"eve'; printf 'nt": "joined"'; printf '}\n{"event": "file"}\n'
printf 'no JSON\n[1, 2]\n\n{"event": \n'
printf 'first error\nsecond' >&2
printf '{"event": "end"}'
)")) << error_;
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(events_, (std::vector<std::string>{"joined", "file", "end"}));
  std::sort(lines_.begin(), lines_.end());
  EXPECT_EQ(lines_, (std::vector<std::string>{"", "[1, 2]", "first error", "no JSON", "second",
                                              "{\"event\": "}));
}

TEST_F(RecorderChild, SaysMoreThanAPipeHoldsAndThatIsAllTold) {
  // It ends right behind a megabyte, and a line that is longer than any is cut into several.
  ASSERT_TRUE(start(R"(
i=0; while [ $i -lt 5000 ]; do echo '{"event": "volume", "of": "nobody in particular"}'; i=$((i+1)); done
head -c 3000000 /dev/zero | tr '\0' x
printf '\n{"event": "end"}\n'
)")) << error_;
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(events_.size(), 5'001U);
  EXPECT_EQ(events_.back(), "end");
  size_t bytes = 0;
  for (const std::string& line : lines_) {
    EXPECT_LE(line.size(), size_t{1} << 20);
    bytes += line.size();
  }
  EXPECT_EQ(bytes, 3'000'000U);
}

TEST_F(RecorderChild, TellsHowItEnded) {
  const std::pair<const char*, int> rows[] = {
      {"exit 0", 0},
      {"exit 5", 5},
      {"kill -KILL $$", 137},
      {"kill -TERM $$", 143},
      {"exec /nowhere", 127},
      // Signals that the worker blocks or ignores are this one's again.
      {"kill -PIPE $$", 141},
      {"kill -INT $$", 130},
      // Its standard input is all that it looked at.
      {"exec 1>&- 2>&-; cat >/dev/null; exit 3", 3},
  };
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGINT);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  for (const auto& [script, status] : rows) {
    ASSERT_TRUE(start(script)) << error_;
    child_->let_go();
    EXPECT_EQ(run(), status) << script;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(RecorderChild, CantBeStartedWithoutAProgram) {
  EXPECT_FALSE(start({"/nowhere/zelta-record"}, {}));
  EXPECT_EQ(error_, "posix_spawn /nowhere/zelta-record: No such file or directory");
  EXPECT_FALSE(start({dir_.file("plain", "")}, {}));
  EXPECT_NE(error_.find("Permission denied"), std::string::npos) << error_;
}

TEST_F(RecorderChild, TakesCommandsUntilItIsLetGo) {
  ASSERT_TRUE(start(R"(
while read -r line; do printf '{"event": "%s"}\n' "$line"; done
printf '{"event": "left"}\n'
)")) << error_;
  EXPECT_TRUE(child_->command("start"));
  EXPECT_TRUE(child_->command("stop"));
  ASSERT_TRUE(run_until("stop"));
  // Longer than what goes in one piece, so it would come in parts with others'.
  EXPECT_FALSE(child_->command(std::string(size_t{1} << 16, 'x')));
  child_->let_go();
  EXPECT_FALSE(child_->command("leave"));
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(events_, (std::vector<std::string>{"start", "stop", "left"}));
}

TEST_F(RecorderChild, HoldsNobodyUpWhenItDoesNotReadItsCommands) {
  ASSERT_TRUE(start(R"(printf '{"event": "joined"}\n'; kill -STOP $$)")) << error_;
  ASSERT_TRUE(run_until("joined"));
  // A pipe takes 64 KiB.
  const std::string line(1000, 'x');
  int taken = 0;
  while (taken < 1000 && child_->command(line)) ++taken;
  EXPECT_LT(taken, 100);
  EXPECT_FALSE(child_->command(line));
  child_->kill_now();
  EXPECT_EQ(run(), 137);
}

TEST_F(RecorderChild, MayBeGoneWhenACommandComes) {
  ASSERT_TRUE(start(R"(exec <&-; printf '{"event": "deaf"}\n'; kill -STOP $$)")) << error_;
  ASSERT_TRUE(run_until("deaf"));
  EXPECT_FALSE(child_->command("renew"));
  child_->kill_now();
  EXPECT_EQ(run(), 137);
}

TEST_F(RecorderChild, IsKilledWithItsOwner) {
  ASSERT_TRUE(start(R"(printf '{"event": "joined"}\n'; exec tail -f /dev/null)")) << error_;
  ASSERT_TRUE(run_until("joined"));
  const pid_t pid = child_->pid();
  child_.reset();
  EXPECT_EQ(kill(pid, 0), -1) << "it is still there";
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "it was not waited for";
}

// Of another process that dies: nobody kills the recorder, but its standard input ends.
TEST_F(RecorderChild, SeesItsStandardInputEndWhenTheWorkerIsKilled) {
  const std::string script = dir_.file("fake.sh", R"(
printf '{"event": "joined"}\n'
cat >/dev/null
echo over >)" + dir_.path() + "fifo\n");
  ASSERT_EQ(mkfifo((dir_.path() + "fifo").c_str(), 0600), 0);
  const base::unique_fd fifo(
      open((dir_.path() + "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const pid_t owner = fork();
  if (owner == 0) {
    if (start({"/bin/sh", script}, {"PATH=/usr/bin:/bin"}) && run_until("joined")) {
      kill(getpid(), SIGKILL);
    }
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(owner, &status, 0), owner);
  ASSERT_TRUE(WIFSIGNALED(status));
  std::string text;
  base::event_loop loop;
  const base::scoped_timer limit(loop, 20'000, [&loop] { loop.stop(); });
  const base::scoped_watch watch(loop, fifo.get(), {[&] {
                                   char bytes[16];
                                   const ssize_t got = read(fifo.get(), bytes, sizeof bytes);
                                   if (got > 0) text.append(bytes, static_cast<size_t>(got));
                                   loop.stop();
                                 }});
  loop.run(false);
  EXPECT_EQ(text, "over\n");
}

TEST_F(RecorderChild, GetsNoDescriptorButItsThree) {
  // One of the worker's that isn't closed by exec.
  const base::unique_fd stray(dup(STDIN_FILENO));
  ASSERT_TRUE(start(R"sh(
for fd in /proc/self/fd/*; do [ -e "$fd" ] && printf '{"event": "%s"}\n' "${fd##*/}"; done
printf '{"event": "%s"}\n' "$(env | sort | tr '\n' ' ')"
)sh")) << error_;
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(std::count(events_.begin(), events_.end(), std::to_string(stray.get())), 0);
  EXPECT_EQ(std::count(events_.begin(), events_.end(), "0"), 1);
  // Nor any variable that it wasn't given, such as one with a secret.
  EXPECT_EQ(events_.back().find("HOME"), std::string::npos) << events_.back();
}

TEST_F(RecorderChild, LeavesNothingOpen) {
  ASSERT_TRUE(start("exit 0")) << error_;
  EXPECT_EQ(run(), 0);
  const int before = open_descriptors();
  for (int at = 0; at < 20; ++at) {
    ASSERT_TRUE(start("exit 0")) << error_;
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(start({"/nowhere/zelta-record"}, {}));
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace zelta::test
